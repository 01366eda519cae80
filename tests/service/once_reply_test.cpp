#include "service/once_reply.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <memory>
#include <thread>
#include <vector>

namespace {

using skiff::service::OnceReply;
using skiff::service::OnceReplyHolder;

TEST(OnceReply, AcceptsMoveOnlyWaitersInstalledLater) {
    OnceReply<int> once;
    EXPECT_FALSE(once.resume(1));  // nothing installed yet: nothing to finish
    int result = 0;
    once.install([box = std::make_unique<int>(5), &result](int v) { result = v + *box; });
    EXPECT_TRUE(once.resume(7));
    EXPECT_EQ(result, 12);
}

TEST(OnceReply, WaiterMayResumeAgainFromInsideItself) {
    auto holder = std::make_shared<OnceReplyHolder<int>>();
    int calls = 0;
    holder->once->install([&](int) {
        ++calls;
        EXPECT_FALSE(holder->resume(2));  // no deadlock: the lock is not held here
    });
    EXPECT_TRUE(holder->resume(1));
    EXPECT_EQ(calls, 1);
}

TEST(OnceReply, RacingThreadsDeliverExactlyOneValue) {
    constexpr int kThreads = 8;
    for (int round = 0; round < 200; ++round) {
        std::atomic<int> deliveries{0};
        std::atomic<int> value{-1};
        OnceReplyHolder<int> holder([&](int v) {
            value = v;
            ++deliveries;
        });
        std::atomic<int> winners{0};
        std::latch start(kThreads);
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, holder, t] {
                start.arrive_and_wait();
                if (holder.resume(t)) {
                    ++winners;
                }
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
        ASSERT_EQ(deliveries, 1);
        ASSERT_EQ(winners, 1);
        ASSERT_GE(value, 0);
        ASSERT_LT(value, kThreads);
    }
}

}  // namespace
