#pragma once
// Test helper: runs a coroutine on a runtime and waits for it with a generous bound.

#include <gtest/gtest.h>

#include <asio.hpp>
#include <chrono>
#include <future>
#include <stdexcept>

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

// Waits for a future with the same bound.
template <class T>
bool readyInTime(std::future<T>& future) {
    return future.wait_for(kWaitLimit) == std::future_status::ready;
}

}  // namespace skiff::testing
