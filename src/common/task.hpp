#pragma once
// spawnTask: an unstructured task, co_spawn detached on an executor (pass a strand to run
// it inside an actor). An exception that escapes the task is logged, never rethrown into
// the pool. May be called from any thread.
//
// Lifetimes, one rule. A spawned task, or an actor's isolated body (actor.hpp), holds a
// std::shared_ptr to the object it works on for as long as it runs. The helpers enforce
// it by their shape: they take that owner, a body and the body's arguments, keep the
// owner and copies of the arguments in the frame that runs the body, and only then call
// the body. The body is a member coroutine of the owner's class, or a plain function that
// takes the owner's shared_ptr first. No helper takes a coroutine already made (it may
// hold a raw `this`) or a lambda (its captures die with the closure, before the
// coroutine does).
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
#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

#include "common/check.hpp"
#include "common/log.hpp"

namespace skiff::runtime {

namespace detail {

template <class T>
struct IsAwaitable : std::false_type {};
template <class T, class Executor>
struct IsAwaitable<asio::awaitable<T, Executor>> : std::true_type {};

// What a body returns when called with its owner and arguments.
template <class Object, class Body, class... Args>
using BodyResult = std::invoke_result_t<Body&, std::shared_ptr<Object>&, Args&&...>;

template <class Object, class Body, class... Args>
constexpr void checkBody() {
    static_assert(std::is_member_function_pointer_v<Body> ||
                      (std::is_pointer_v<Body> && std::is_function_v<std::remove_pointer_t<Body>>),
                  "a body is a member coroutine of its owner or a plain function, never a lambda");
    static_assert(std::is_invocable_v<Body&, std::shared_ptr<Object>&, Args&&...>,
                  "the body cannot be called with its owner and these arguments");
    static_assert(IsAwaitable<BodyResult<Object, Body, Args...>>::value,
                  "a body is a coroutine returning asio::awaitable");
}

// The frame that keeps the owner and the arguments alive while the body runs.
template <class Object, class Body, class... Args>
BodyResult<Object, Body, Args...> runOwned(std::shared_ptr<Object> owner, Body body, Args... args) {
    if constexpr (std::is_void_v<typename BodyResult<Object, Body, Args...>::value_type>) {
        co_await std::invoke(body, owner, std::move(args)...);
    } else {
        co_return co_await std::invoke(body, owner, std::move(args)...);
    }
}

// Calls body(owner, args...) later, inside a frame that holds owner.
template <class Object, class Body, class... Args>
BodyResult<Object, Body, std::decay_t<Args>...> owned(std::shared_ptr<Object> owner, Body body,
                                                      Args&&... args) {
    checkBody<Object, Body, std::decay_t<Args>...>();
    if (!owner) {
        fatalError("a body started without its owner");
    }
    return runOwned(std::move(owner), body, std::decay_t<Args>(std::forward<Args>(args))...);
}

inline void logUnhandled(std::exception_ptr error) {
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
}

}  // namespace detail

// Starts body(owner, args...) on executor.
template <class Executor, class Object, class Body, class... Args>
void spawnTask(const Executor& executor, std::shared_ptr<Object> owner, Body body, Args&&... args) {
    static_assert(std::is_void_v<
                      typename detail::BodyResult<Object, Body, std::decay_t<Args>...>::value_type>,
                  "a task returns nothing");
    asio::co_spawn(executor, detail::owned(std::move(owner), body, std::forward<Args>(args)...),
                   detail::logUnhandled);
}

}  // namespace skiff::runtime
