#pragma once
// spawnTask: an unstructured task, co_spawn detached on an executor (pass a strand to run
// it inside an actor). An exception that escapes the task is logged, never rethrown into
// the pool. May be called from any thread.

#include <asio.hpp>
#include <exception>

#include "common/log.hpp"

namespace skiff::runtime {

// Starts an unstructured task. The executor decides where it runs (pass a strand to
// run it inside an actor).
template <class Executor>
void spawnTask(const Executor& executor, asio::awaitable<void> task) {
    asio::co_spawn(executor, std::move(task), [](std::exception_ptr error) {
        if (!error) {
            return;
        }
        try {
            std::rethrow_exception(error);
        } catch (const std::exception& e) {
            log::xpc().error("task ended with an unhandled error: %{public}s", e.what());
        } catch (...) {
            log::xpc().error("task ended with an unhandled error");
        }
    });
}

}  // namespace skiff::runtime
