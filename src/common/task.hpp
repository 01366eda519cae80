#pragma once
// spawnTask: an unstructured task, co_spawn detached on an executor (pass a strand to run
// it inside an actor). An exception that escapes the task is logged, never rethrown into
// the pool. May be called from any thread.
//
// GCC 12 and co_await temporaries. In a full-expression that contains co_await, GCC 12
// destroys twice every temporary made there by a lambda-expression or by a braced
// initialiser of an aggregate (a struct without constructors), whether it is the awaited
// call's argument or sits anywhere else in the expression. That is harmless while every
// member is trivially destructible (numbers, pointers, captures by reference) and a double
// free as soon as one is not (a std::string, shared_ptr or std::function member, captured
// by copy or by init-capture). So such a lambda or aggregate is built as a named local
// before the statement and passed (or moved) from there. Temporaries of classes with a
// declared constructor (std::string, std::vector, asio::awaitable, our own types) and
// aggregates returned by a function call are destroyed once and may stay inline.
// tests/common/co_await_temporaries_test.cpp watches for it.

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
