// AsyncMutex: exclusion across threads and executors, arrival order, and turns that never
// reach their coroutine.
#include "common/async_mutex.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <optional>
#include <thread>
#include <vector>

#include "common/run_sync.hpp"
#include "common/started_runtime.hpp"

namespace skiff::runtime {
namespace {

using skiff::testing::readyInTime;
using skiff::testing::runSync;
using Strand = asio::strand<asio::any_io_executor>;

class AsyncMutexTest : public ::testing::Test {
protected:
    skiff::testing::StartedRuntime runtime{4};
    skiff::testing::StartedRuntime other{2};
};

struct Tally {
    int counter = 0;  // touched only under the mutex
    std::atomic<bool> inside{false};
    std::atomic<int> overlaps{0};
    std::atomic<int> offTheirStrand{0};
};

// Holds the mutex across a suspension, so an overlap or a lost update would show.
asio::awaitable<void> contend(AsyncMutex& mutex, Tally& tally, std::optional<Strand> strand,
                              int rounds) {
    for (int i = 0; i < rounds; ++i) {
        auto lock = co_await mutex.lock();
        if (strand && !strand->running_in_this_thread()) {
            ++tally.offTheirStrand;
        }
        if (tally.inside.exchange(true)) {
            ++tally.overlaps;
        }
        const int seen = tally.counter;
        co_await asio::post(co_await asio::this_coro::executor, asio::use_awaitable);
        tally.counter = seen + 1;
        tally.inside = false;
    }
}

TEST_F(AsyncMutexTest, ExcludesManyCoroutinesAcrossPoolsAndStrands) {
    AsyncMutex mutex;
    Tally tally;
    constexpr int kCoroutines = 32;
    constexpr int kRounds = 50;
    std::vector<std::future<void>> done;
    for (int i = 0; i < kCoroutines; ++i) {
        if (i % 3 == 0) {
            auto strand = asio::make_strand(runtime.executor());
            done.push_back(
                asio::co_spawn(strand, contend(mutex, tally, strand, kRounds), asio::use_future));
        } else {
            auto executor = i % 3 == 1 ? runtime.executor() : other.executor();
            done.push_back(asio::co_spawn(executor, contend(mutex, tally, std::nullopt, kRounds),
                                          asio::use_future));
        }
    }
    for (auto& d : done) {
        ASSERT_TRUE(readyInTime(d));
        d.get();
    }
    EXPECT_EQ(tally.overlaps, 0);
    EXPECT_EQ(tally.offTheirStrand, 0);
    EXPECT_EQ(tally.counter, kCoroutines * kRounds);
}

struct Arrivals {
    std::vector<int> order;  // touched only under the mutex
    std::atomic<int> resumedInsideARelease{0};
};

// How deep this thread is inside unlock(): a waiter resumed inline by the release would
// run on the releasing thread while it is above zero. Another pool thread taking the next
// turn at the same time is fine and does not count.
thread_local int releaseDepth = 0;

void release(AsyncMutex::Lock& lock) {
    ++releaseDepth;
    lock.unlock();
    --releaseDepth;
}

asio::awaitable<void> queueUp(AsyncMutex& mutex, Arrivals& arrivals, int index) {
    auto lock = co_await mutex.lock();
    if (releaseDepth > 0) {
        ++arrivals.resumedInsideARelease;
    }
    arrivals.order.push_back(index);
    release(lock);
}

TEST_F(AsyncMutexTest, WaitersGetItInArrivalOrderAndNeverInsideTheRelease) {
    AsyncMutex mutex;
    Arrivals arrivals;
    auto held = runSync(runtime.executor(), mutex.lock());
    // Each waiter queues up during its first turn on the strand, so they arrive in
    // spawn order; the no-op after them runs once all have.
    auto strand = asio::make_strand(runtime.executor());
    std::vector<std::future<void>> waiters;
    for (int i = 0; i < 8; ++i) {
        waiters.push_back(asio::co_spawn(strand, queueUp(mutex, arrivals, i), asio::use_future));
    }
    runSync(strand, []() -> asio::awaitable<void> { co_return; }());

    release(held);
    for (auto& w : waiters) {
        ASSERT_TRUE(readyInTime(w));
    }
    EXPECT_EQ(arrivals.order, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7}));
    EXPECT_EQ(arrivals.resumedInsideARelease, 0);
}

asio::awaitable<void> takeAndMark(AsyncMutex& mutex, bool& reached) {
    auto lock = co_await mutex.lock();
    reached = true;
}

TEST_F(AsyncMutexTest, ATurnWhoseCoroutineIsGoneMovesOn) {
    AsyncMutex mutex;
    auto held = runSync(runtime.executor(), mutex.lock());
    bool reached = false;
    {
        asio::io_context elsewhere;
        asio::co_spawn(elsewhere, takeAndMark(mutex, reached), asio::detached);
        elsewhere.poll();  // it queues up behind `held`
        held.unlock();     // its turn is posted to `elsewhere`...
    }                      // ...which goes, with the coroutine, before running it
    EXPECT_FALSE(reached);
    // A wedged mutex would leave this waiting past runSync's limit.
    auto next = runSync(runtime.executor(), mutex.lock());
    EXPECT_TRUE(next.ownsLock());
}

}  // namespace
}  // namespace skiff::runtime
