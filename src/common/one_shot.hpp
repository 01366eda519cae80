#pragma once
// OneShot<T>: resumes a suspended caller exactly once. wait() may be awaited once (a second
// wait is a programming error and stops the process); resume()/fail() may be called from
// any thread, and every call after the first is a no-op that returns false. The waiter
// always resumes through a post to its own executor, never inline in the caller of
// resume(). When every copy is dropped unresumed, the waiting coroutine is destroyed.
// T (when not void) must be default-constructible.

#include <asio.hpp>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <type_traits>
#include <utility>

#include "common/check.hpp"
#include "common/runtime_detail.hpp"

namespace skiff::runtime {

template <class T>
class OneShot {
    using V = detail::ValueOf<T>;

public:
    OneShot() : state_(std::make_shared<State>()) {}

    // Resumes the waiter with a value (omit it for OneShot<void>).
    template <class... A>
    bool resume(A&&... value) {
        return state_->complete(nullptr, V(std::forward<A>(value)...));
    }

    // Resumes the waiter by throwing error.
    bool fail(std::exception_ptr error) { return state_->complete(std::move(error), V{}); }

    template <class E>
    bool fail(E error) {
        return fail(std::make_exception_ptr(std::move(error)));
    }

    bool isDone() const {
        std::lock_guard lock(state_->mutex);
        return state_->done;
    }

    asio::awaitable<T> wait() const {
        // A plain pointer through async_initiate (see SerialQueue::run). The frame gives
        // up its reference once the waiter is stored, so a OneShot dropped by everyone
        // else frees its waiter instead of keeping it in a cycle.
        std::shared_ptr<State> state = state_;
        auto initiate = [held = &state](auto handler) {
            std::shared_ptr<State> owner = std::move(*held);
            owner->attach(std::move(handler));
        };
        auto value = co_await asio::async_initiate<const asio::use_awaitable_t<>&,
                                                   void(std::exception_ptr, V)>(
            initiate, asio::use_awaitable);
        if constexpr (!std::is_void_v<T>) {
            co_return std::move(value);
        }
    }

private:
    struct State {
        std::mutex mutex;
        bool done = false;
        bool awaited = false;
        std::exception_ptr error;
        V value{};
        std::optional<detail::Job> waiter;  // set while a caller is suspended

        template <class Handler>
        void attach(Handler handler) {
            detail::PostedCompletion<Handler, std::exception_ptr, V> completion(std::move(handler));
            std::unique_lock lock(mutex);
            if (awaited) {
                fatalError("OneShot awaited twice");
            }
            awaited = true;
            if (done) {
                lock.unlock();
                completion(error, std::move(value));
                return;
            }
            waiter.emplace([this, completion = std::move(completion)]() mutable {
                completion(error, std::move(value));
            });
        }

        bool complete(std::exception_ptr e, V v) {
            std::optional<detail::Job> toRun;
            {
                std::lock_guard lock(mutex);
                if (done) {
                    return false;
                }
                done = true;
                error = std::move(e);
                value = std::move(v);
                toRun.swap(waiter);
            }
            if (toRun) {
                (*toRun)();
            }
            return true;
        }
    };

    std::shared_ptr<State> state_;
};

}  // namespace skiff::runtime
