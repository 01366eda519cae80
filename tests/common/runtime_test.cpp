// IoRuntime, actors, tasks and the serial queue.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "common/actor.hpp"
#include "common/log.hpp"
#include "common/once_reply.hpp"
#include "common/run_sync.hpp"
#include "common/serial_queue.hpp"
#include "common/started_runtime.hpp"
#include "common/task.hpp"

namespace skiff::runtime {
namespace {

using skiff::testing::eventually;
using skiff::testing::readyInTime;
using skiff::testing::runSync;
using skiff::testing::StartedRuntime;

asio::awaitable<int> seven() {
    co_return 7;
}

// A counter whose increment suspends halfway, so unserialised bodies would lose updates.
class Counter : public Actor, public std::enable_shared_from_this<Counter> {
public:
    explicit Counter(asio::any_io_executor executor) : Actor(executor) {}

    asio::awaitable<int> increment() { return isolated(shared_from_this(), &Counter::doIncrement); }

    // Reads the value without suspending.
    asio::awaitable<int> value() { return isolated(shared_from_this(), &Counter::doValue); }

    // Parks on the strand until `release` is resumed.
    asio::awaitable<void> park(OnceReply<void> release) {
        return isolated(shared_from_this(), &Counter::doPark, std::move(release));
    }

private:
    asio::awaitable<void> doPark(OnceReply<void> release) { co_await std::move(release).wait(); }

    asio::awaitable<int> doValue() { co_return value_; }

    asio::awaitable<int> doIncrement() {
        assertIsolated();
        int seen = value_;
        co_await asio::post(strand(), asio::use_awaitable);
        assertIsolated();
        // Another call may have run meanwhile: the strand interleaves at co_await.
        value_ = std::max(value_, seen) + 1;
        co_return value_;
    }

    int value_ = 0;
};

TEST(Actor, BodiesRunOnTheStrandAndCallersResumeOnTheirOwnExecutor) {
    StartedRuntime runtime;
    auto shared = std::make_shared<Counter>(runtime.executor());
    Counter& counter = *shared;
    auto callerStrand = asio::make_strand(runtime.executor());
    constexpr int kCalls = 200;
    auto task = [&]() -> asio::awaitable<bool> {
        bool callerResumedOnItsStrand = true;
        for (int i = 0; i < kCalls / 2; ++i) {
            co_await counter.increment();
            callerResumedOnItsStrand &= callerStrand.running_in_this_thread();
            callerResumedOnItsStrand &= !counter.isIsolated();
        }
        co_return callerResumedOnItsStrand;
    };
    // A named lambda: its captures must outlive the coroutine it starts.
    auto otherCaller = [&]() -> asio::awaitable<void> {
        for (int i = 0; i < kCalls / 2; ++i) {
            co_await counter.increment();
        }
    };
    auto other = asio::co_spawn(runtime.executor(), otherCaller(), asio::use_future);
    EXPECT_TRUE(runSync(callerStrand, task()));
    ASSERT_TRUE(readyInTime(other));
    EXPECT_EQ(runSync(runtime.executor(), counter.increment()), kCalls + 1);
}

// Actors built on one strand call each other directly: the callee's body runs before
// anything posted to the strand meanwhile, as no hand-over lets it in.
TEST(Actor, ACallAlreadyOnTheStrandRunsInline) {
    StartedRuntime runtime;
    const asio::any_io_executor shared = asio::make_strand(runtime.executor());
    auto first = std::make_shared<Counter>(shared);
    auto second = std::make_shared<Counter>(shared);
    auto overtaken = std::make_shared<std::atomic<bool>>(false);
    auto task = [&]() -> asio::awaitable<bool> {
        asio::post(shared, [overtaken] { *overtaken = true; });
        co_await first->value();
        co_await second->value();
        co_return second->isIsolated() && !*overtaken;
    };
    EXPECT_TRUE(runSync(shared, task()));
    EXPECT_EQ(runSync(runtime.executor(), second->increment()), 1);
}

TEST(SerialQueue, RunsJobsInOrderOnItsOwnThreadAndPassesResultsAndErrors) {
    // One pool thread: a job run on it would keep everything else waiting.
    StartedRuntime runtime{1};
    SerialQueue queue("Mox.Harbor.test.queue");
    std::promise<void> release;
    auto blocked =
        asio::co_spawn(runtime.executor(),
                       queue.run([released = release.get_future().share()] { released.wait(); }),
                       asio::use_future);
    EXPECT_EQ(runSync(runtime.executor(), seven()), 7);
    release.set_value();
    ASSERT_TRUE(readyInTime(blocked));

    auto strand = asio::make_strand(runtime.executor());
    auto task = [&]() -> asio::awaitable<std::vector<int>> {
        std::vector<int> order;
        std::thread::id first;
        for (int i = 0; i < 5; ++i) {
            auto [value, id] = co_await queue.run([i] {
                return std::pair{i, std::this_thread::get_id()};
            });
            EXPECT_TRUE(strand.running_in_this_thread());
            first = i == 0 ? id : first;
            EXPECT_EQ(id, first);
            order.push_back(value);
        }
        bool threw = false;
        try {
            co_await queue.run([]() -> int { throw std::runtime_error("native failure"); });
        } catch (const std::runtime_error& e) {
            threw = std::string(e.what()) == "native failure";
        }
        EXPECT_TRUE(threw);
        co_return order;
    };
    EXPECT_EQ(runSync(strand, task()), (std::vector<int>{0, 1, 2, 3, 4}));
}

// Bodies that outlive every other reference to their object: each keeps its owner.
TEST(Task, SpawnedAndIsolatedBodiesHoldTheirOwnerUntilTheyEnd) {
    StartedRuntime runtime;
    auto counter = std::make_shared<Counter>(runtime.executor());
    std::weak_ptr<Counter> watch = counter;
    OnceReply<void> releaseIsolated;
    OnceReply<void> releaseSpawned;
    auto isolatedCall =
        asio::co_spawn(runtime.executor(), counter->park(releaseIsolated), asio::use_future);
    spawnTask(runtime.executor(), counter, &Counter::park, releaseSpawned);
    counter.reset();

    EXPECT_FALSE(watch.expired());
    releaseIsolated.resume();
    ASSERT_TRUE(readyInTime(isolatedCall));
    EXPECT_FALSE(watch.expired());
    releaseSpawned.resume();
    EXPECT_TRUE(eventually([&] { return watch.expired(); }));
}

struct Thrower {
    asio::awaitable<void> run() {
        throw std::runtime_error("escaped");
        co_return;
    }
};

TEST(Task, ErrorsAreLoggedNotRethrown) {
    StartedRuntime runtime;
    log::LogCapture capture;
    spawnTask(runtime.executor(), std::make_shared<Thrower>(), &Thrower::run);
    EXPECT_TRUE(eventually(
        [&] { return capture.contains("task ended with an unhandled error: escaped"); }));
    EXPECT_EQ(runSync(runtime.executor(), seven()), 7);
}

TEST(IoRuntimeLifecycle, StopJoinsWithSuspendedWorkAndCanRestart) {
    IoRuntime runtime(2);
    runtime.start();
    runtime.start();
    OnceReply<void> never;
    asio::co_spawn(runtime.executor(), OnceReply<void>(never).wait(), asio::detached);
    SerialQueue queue("lifecycle");
    asio::co_spawn(runtime.executor(), queue.run([] { return 1; }), asio::detached);
    runtime.stop();
    runtime.stop();
    runtime.start();
    EXPECT_EQ(runSync(runtime.executor(), seven()), 7);
}

TEST(IoRuntimeLifecycle, DrainLetsABlockingJobHandItsCompletionOverBeforeTheContextGoes) {
    SerialQueue queue("drain");  // outlives the runtime, as a transport's queue may
    std::promise<void> started;
    auto running = started.get_future();
    std::promise<void> release;
    std::atomic<bool> releasedByRuntime{false};
    bool settled = false;
    {
        IoRuntime runtime(1);
        runtime.start();
        auto job = [&started, released = release.get_future().share()] {
            started.set_value();
            released.wait();
        };
        asio::co_spawn(runtime.executor(), queue.run(std::move(job)), asio::detached);
        ASSERT_TRUE(readyInTime(running));
        // The job is let go by the runtime's own later work, which only a drain lets run.
        auto timer =
            std::make_shared<asio::steady_timer>(runtime.executor(), std::chrono::milliseconds(50));
        timer->async_wait([timer, &release, &releasedByRuntime](const std::error_code&) {
            releasedByRuntime = true;
            release.set_value();
        });
        runtime.drain(std::chrono::seconds(20));
        settled = asio::use_service<detail::OwedCompletions>(runtime.context())
                      .waitSettled(std::chrono::milliseconds(0));
    }
    if (!releasedByRuntime) {
        release.set_value();  // lets the queue join
    }
    EXPECT_TRUE(settled);
}

}  // namespace
}  // namespace skiff::runtime
