#pragma once
// OnceReply<T>: lets several racing parties (a result, a time-out, a cancellation, a
// failed remote call) try to finish one waiter; the first one does, every later one does
// nothing.
//
// A copyable handle: every copy shares one guard. resume(value) (no value for
// OnceReply<void>) and fail(error) may be called from any thread; the first call finishes
// the waiter and returns true, every later one returns false. The waiter is either
//   - a coroutine: `co_await std::move(guard).wait()` returns the value or throws the
//     error. wait() consumes the handle, so the waiter itself holds no copy. It resumes
//     through a post to its own executor, never inline in the caller of resume(); an
//     outcome that came first is kept for it. A guard is awaited at most once (a second
//     wait is a programming error and stops the process); or
//   - two callbacks given at construction: reply(value) after a resume, onFailure(error)
//     after a fail. They run in the thread that finished the guard, outside its lock (so
//     they may touch the guard again), and must not throw. Move-only callables are fine.
// When the last copy goes while a waiter is attached and nothing finished the guard, its
// owners have a bug: the guard logs an error and fails the waiter with OnceReplyDropped
// (the coroutine sees the exception, onFailure receives it, in the thread that dropped the
// last copy). A waiter is never dropped silently.
//
// T (when not void) must be default-constructible.

#include <asio.hpp>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <type_traits>
#include <utility>

#include "common/check.hpp"
#include "common/log.hpp"
#include "common/runtime_detail.hpp"

namespace skiff::runtime {

// What the waiter of a OnceReply sees when every copy of it was dropped unfinished.
class OnceReplyDropped : public std::logic_error {
public:
    OnceReplyDropped() : std::logic_error("OnceReply dropped without resuming its waiter") {}
};

template <class T>
class OnceReply {
    using V = detail::ValueOf<T>;
    using Waiter = detail::UniqueFunction<void(std::exception_ptr, V)>;

    template <class Reply>
    static constexpr bool isReply =
        std::is_void_v<T> ? std::is_invocable_v<Reply&> : std::is_invocable_v<Reply&, V>;

public:
    // For a coroutine that will wait().
    OnceReply() : state_(std::make_shared<State>()) {}

    // With callbacks as the waiter.
    template <class Reply, class OnFailure>
    requires isReply<Reply> && std::is_invocable_v<OnFailure&, std::exception_ptr> OnceReply(
        Reply reply, OnFailure onFailure)
        : OnceReply() {
        state_->attach(Waiter([reply = std::move(reply), onFailure = std::move(onFailure)](
                                  std::exception_ptr error, V value) mutable {
            if (error) {
                onFailure(std::move(error));
            } else if constexpr (std::is_void_v<T>) {
                reply();
            } else {
                reply(std::move(value));
            }
        }));
    }

    // Finishes the waiter with a value.
    template <class... A>
    bool resume(A&&... value) const {
        return state().complete(nullptr, V(std::forward<A>(value)...));
    }

    // Finishes the waiter with an error.
    bool fail(std::exception_ptr error) const { return state().complete(std::move(error), V{}); }

    template <class E>
    requires(!std::is_same_v<std::decay_t<E>, std::exception_ptr>) bool fail(E error) const {
        return fail(std::make_exception_ptr(std::move(error)));
    }

    // Waits for the outcome; this handle is empty afterwards.
    asio::awaitable<T> wait() && {
        state();
        return waitOn(std::move(state_));
    }

private:
    struct State {
        std::mutex mutex;
        bool done = false;
        bool awaited = false;
        std::exception_ptr error;
        V value{};
        std::optional<Waiter> waiter;  // set while someone waits

        ~State() {
            if (waiter) {
                log::xpc().error("OnceReply dropped without resuming its waiter");
                (*waiter)(std::make_exception_ptr(OnceReplyDropped()), V{});
            }
        }

        void attach(Waiter w) {
            std::unique_lock lock(mutex);
            if (awaited) {
                fatalError("OnceReply awaited twice");
            }
            awaited = true;
            if (!done) {
                waiter.emplace(std::move(w));
                return;
            }
            lock.unlock();
            w(error, std::move(value));
        }

        bool complete(std::exception_ptr e, V v) {
            std::optional<Waiter> toRun;
            {
                std::lock_guard lock(mutex);
                if (done) {
                    return false;
                }
                done = true;
                if (!waiter) {
                    error = std::move(e);
                    value = std::move(v);
                    return true;
                }
                toRun.swap(waiter);
            }
            (*toRun)(std::move(e), std::move(v));
            return true;
        }
    };

    State& state() const {
        if (!state_) {
            fatalError("OnceReply used after its wait() took it");
        }
        return *state_;
    }

    static asio::awaitable<T> waitOn(std::shared_ptr<State> state) {
        // The initiation captures a pointer only (the co_await temporaries rule in
        // task.hpp). It takes the frame's reference and lets it go once the waiter is
        // attached, so that only the resuming side keeps the guard alive.
        auto initiate = [held = &state](auto handler) {
            using Completion = detail::PostedCompletion<decltype(handler), std::exception_ptr, V>;
            std::shared_ptr<State> owner = std::move(*held);
            owner->attach(Waiter(Completion(std::move(handler))));
        };
        auto value = co_await asio::async_initiate<const asio::use_awaitable_t<>&,
                                                   void(std::exception_ptr, V)>(
            initiate, asio::use_awaitable);
        if constexpr (!std::is_void_v<T>) {
            co_return std::move(value);
        }
    }

    std::shared_ptr<State> state_;
};

}  // namespace skiff::runtime
