#pragma once
// AsyncMutex: mutual exclusion for coroutines, held across co_await.
//
//     auto lock = co_await mutex.lock();   // released when `lock` goes out of scope
//
// lock() may be awaited from any executor, and a Lock released from any thread. Waiters
// are served in the order they asked (FIFO), and the mutex passes straight from a releasing
// Lock to the next waiter, so a newcomer never overtakes one that waits. A waiter resumes
// through a post to its own executor, never inline in the releasing call. A taken turn
// that never reaches its coroutine (the coroutine was destroyed first, say with its
// io_context) passes on to the next waiter: only a Lock holds the mutex, wherever it is.
// A wait cannot be cancelled. The executors of waiting coroutines must outlive their
// wait; the mutex itself may be destroyed while a Lock is still out.

#include <asio.hpp>
#include <deque>
#include <memory>
#include <mutex>
#include <utility>

#include "common/runtime_detail.hpp"

namespace skiff::runtime {

class AsyncMutex {
    struct State;

public:
    // Holds the mutex until destroyed, moved from or unlock()ed. Move-only.
    class Lock {
    public:
        Lock() = default;
        Lock(Lock&& other) noexcept = default;
        Lock& operator=(Lock&& other) noexcept {
            if (this != &other) {
                unlock();
                state_ = std::move(other.state_);
            }
            return *this;
        }
        ~Lock() { unlock(); }

        bool ownsLock() const { return state_ != nullptr; }

        // Releases early; does nothing when this Lock holds nothing.
        void unlock() {
            if (auto state = std::move(state_)) {
                State::release(std::move(state));
            }
        }

    private:
        friend class AsyncMutex;
        explicit Lock(std::shared_ptr<State> state) : state_(std::move(state)) {}
        std::shared_ptr<State> state_;
    };

    AsyncMutex() : state_(std::make_shared<State>()) {}
    AsyncMutex(const AsyncMutex&) = delete;
    AsyncMutex& operator=(const AsyncMutex&) = delete;

    asio::awaitable<Lock> lock() { return acquire(state_); }

private:
    struct State {
        std::mutex mutex;
        bool locked = false;
        std::deque<detail::UniqueFunction<void(Lock)>> waiters;

        // Hands the mutex to the first waiter, or frees it.
        static void release(std::shared_ptr<State> state) {
            std::unique_lock guard(state->mutex);
            if (state->waiters.empty()) {
                state->locked = false;
                return;
            }
            auto next = std::move(state->waiters.front());
            state->waiters.pop_front();
            guard.unlock();
            next(Lock(std::move(state)));
        }
    };

    static asio::awaitable<Lock> acquire(std::shared_ptr<State> state) {
        bool free = false;
        {
            std::lock_guard guard(state->mutex);
            free = !state->locked;
            state->locked = true;
        }
        if (free) {
            co_return Lock(std::move(state));
        }
        // The initiation captures a pointer only (the co_await temporaries rule in
        // task.hpp); it runs before this frame can go.
        auto initiate = [held = &state](auto handler) {
            using Completion = detail::PostedCompletion<decltype(handler), Lock>;
            Completion completion(std::move(handler));
            std::unique_lock guard((*held)->mutex);
            if (!(*held)->locked) {
                // Freed between the first look and now.
                (*held)->locked = true;
                guard.unlock();
                completion(Lock(*held));
                return;
            }
            (*held)->waiters.emplace_back(std::move(completion));
        };
        co_return co_await asio::async_initiate<const asio::use_awaitable_t<>&, void(Lock)>(
            initiate, asio::use_awaitable);
    }

    std::shared_ptr<State> state_;
};

}  // namespace skiff::runtime
