// OnceReply: one outcome per guard, in both forms, and no waiter left behind.
#include "common/once_reply.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "common/log.hpp"
#include "common/run_sync.hpp"
#include "common/started_runtime.hpp"

namespace skiff::runtime {
namespace {

using skiff::testing::readyInTime;
using skiff::testing::runSync;

asio::awaitable<bool> resumedOnStrand(OnceReply<int> guard,
                                      asio::strand<asio::any_io_executor> strand) {
    const int value = co_await std::move(guard).wait();
    co_return value == 10 && strand.running_in_this_thread();
}

TEST(OnceReply, AWaiterGetsTheFirstOutcomeOnItsOwnExecutor) {
    skiff::testing::StartedRuntime runtime;
    OnceReply<int> early;
    EXPECT_TRUE(early.resume(1));
    EXPECT_FALSE(early.resume(2));
    EXPECT_EQ(runSync(runtime.executor(), OnceReply<int>(early).wait()), 1);

    // Resumed from a plain thread, the waiter still continues on its strand, not inside
    // the call that resumed it.
    OnceReply<int> late;
    auto strand = asio::make_strand(runtime.executor());
    auto waiting = asio::co_spawn(strand, resumedOnStrand(late, strand), asio::use_future);
    std::thread([late] { late.resume(10); }).join();
    EXPECT_FALSE(late.fail(std::runtime_error("too late")));
    ASSERT_TRUE(readyInTime(waiting));
    EXPECT_TRUE(waiting.get());

    OnceReply<void> failed;
    EXPECT_TRUE(failed.fail(std::runtime_error("gone")));
    EXPECT_THROW(runSync(runtime.executor(), std::move(failed).wait()), std::runtime_error);
}

TEST(OnceReply, RacingThreadsDeliverExactlyOneOutcome) {
    constexpr int kThreads = 8;
    for (int round = 0; round < 200; ++round) {
        std::atomic<int> deliveries{0};
        std::atomic<int> value{-1};
        // Move-only callbacks, and one that fails half the rounds.
        OnceReply<int> guard(
            [&, box = std::make_unique<int>(0)](int v) {
                value = v + *box;
                ++deliveries;
            },
            [&, box = std::make_unique<int>(0)](std::exception_ptr) {
                value = 100 + *box;
                ++deliveries;
            });
        std::atomic<int> winners{0};
        std::latch start(kThreads);
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, guard, t] {
                start.arrive_and_wait();
                const bool failing = t == round % kThreads && round % 2 == 0;
                winners +=
                    (failing ? guard.fail(std::runtime_error("x")) : guard.resume(t)) ? 1 : 0;
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
        ASSERT_EQ(deliveries, 1);
        ASSERT_EQ(winners, 1);
        ASSERT_TRUE((value >= 0 && value < kThreads) || value == 100);
    }
}

TEST(OnceReply, AReplyMayTouchItsGuardAgain) {
    int calls = 0;
    auto holder = std::make_shared<OnceReply<void>>();
    *holder = OnceReply<void>(
        [&] {
            ++calls;
            EXPECT_FALSE(holder->resume());  // no deadlock: the lock is not held here
        },
        [](std::exception_ptr) { FAIL() << "failed instead of resumed"; });
    EXPECT_TRUE(holder->resume());
    EXPECT_EQ(calls, 1);
}

TEST(OnceReply, ADroppedGuardFailsItsWaiterAndSaysSo) {
    skiff::testing::StartedRuntime runtime;
    log::LogCapture capture;
    const auto loggedAsError = [&] {
        for (const auto& record : capture.records()) {
            if (record.level == log::Level::error &&
                record.message == "OnceReply dropped without resuming its waiter") {
                return true;
            }
        }
        return false;
    };

    // The coroutine sees the error; it is not destroyed in silence.
    std::future<void> waiting;
    {
        OnceReply<void> guard;
        waiting =
            asio::co_spawn(runtime.executor(), OnceReply<void>(guard).wait(), asio::use_future);
    }
    ASSERT_TRUE(readyInTime(waiting));
    EXPECT_THROW(waiting.get(), OnceReplyDropped);
    EXPECT_TRUE(loggedAsError());

    // The callback form hears of it through onFailure.
    capture.clear();
    std::exception_ptr failure;
    {
        OnceReply<int> guard([](int) {}, [&](std::exception_ptr e) { failure = e; });
    }
    ASSERT_TRUE(failure);
    EXPECT_THROW(std::rethrow_exception(failure), OnceReplyDropped);
    EXPECT_TRUE(loggedAsError());

    // Finished guards, and guards nobody waits on, go quietly.
    capture.clear();
    OnceReply<int>([](int) {}, [](std::exception_ptr) {}).resume(1);
    { OnceReply<int> unwatched; }
    EXPECT_TRUE(capture.records().empty());
}

}  // namespace
}  // namespace skiff::runtime
