#pragma once
// Test helpers that wait, each with the same generous bound: a coroutine run to its end, a
// condition polled until it holds, a future.

#include <gtest/gtest.h>

#include <asio.hpp>
#include <chrono>
#include <functional>
#include <future>
#include <stdexcept>
#include <thread>

namespace skiff::testing {

inline constexpr auto kWaitLimit = std::chrono::seconds(20);

// Runs task on executor and returns its result (or rethrows its error). Fails with
// std::runtime_error when it has not finished within kWaitLimit.
template <class T, class Executor>
T runSync(const Executor& executor, asio::awaitable<T> task) {
    auto future = asio::co_spawn(executor, std::move(task), asio::use_future);
    if (future.wait_for(kWaitLimit) != std::future_status::ready) {
        throw std::runtime_error("coroutine did not finish in time");
    }
    return future.get();
}

// Polls condition until it holds or the same bound passes.
inline bool eventually(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + kWaitLimit;
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return condition();
}

// Waits for a future with the same bound.
template <class T>
bool readyInTime(std::future<T>& future) {
    return future.wait_for(kWaitLimit) == std::future_status::ready;
}

}  // namespace skiff::testing
