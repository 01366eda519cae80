#pragma once
// Building blocks shared by the runtime's primitives (task.hpp, actor.hpp,
// serial_queue.hpp, async_mutex.hpp, once_reply.hpp); nothing outside them uses these.

#include <asio.hpp>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <type_traits>
#include <utility>
#include <variant>

namespace skiff::runtime::detail {

// A move-only type-erased callable (std::function needs copyable targets; asio handlers
// are not).
template <class Signature>
class UniqueFunction;

template <class R, class... Args>
class UniqueFunction<R(Args...)> {
public:
    template <class F>
    explicit UniqueFunction(F f) : impl_(std::make_unique<Impl<F>>(std::move(f))) {}
    R operator()(Args... args) { return impl_->call(std::forward<Args>(args)...); }

private:
    struct Base {
        virtual ~Base() = default;
        virtual R call(Args... args) = 0;
    };
    template <class F>
    struct Impl final : Base {
        explicit Impl(F f) : fn(std::move(f)) {}
        R call(Args... args) override { return fn(std::forward<Args>(args)...); }
        F fn;
    };
    std::unique_ptr<Base> impl_;
};

using Job = UniqueFunction<void()>;

// The value carried by a completion: void becomes an empty placeholder.
template <class T>
using ValueOf = std::conditional_t<std::is_void_v<T>, std::monostate, T>;

// Hands its arguments to an asio completion handler through a post to the handler's own
// executor, never inline, keeping that executor busy until then. Destroyed without being
// called, it destroys the handler (and the coroutine waiting on it).
// The completions that jobs on other threads still owe an execution context: its owner
// waits for them before destroying it, since a post into a destroyed context is a use
// after free.
class OwedCompletions : public asio::execution_context::service {
public:
    using key_type = OwedCompletions;
    static inline asio::execution_context::id id;

    explicit OwedCompletions(asio::execution_context& context) : service(context) {}

    // One owed completion, settled when it has been handed over (or dropped).
    class Debt {
    public:
        explicit Debt(OwedCompletions& owner) : owner_(&owner) {
            std::lock_guard lock(owner_->mutex_);
            ++owner_->owed_;
        }
        Debt(Debt&& other) noexcept : owner_(std::exchange(other.owner_, nullptr)) {}
        Debt& operator=(Debt&&) = delete;
        ~Debt() { settle(); }
        // The context may be gone once this returns.
        void settle() {
            if (auto* owner = std::exchange(owner_, nullptr)) {
                std::lock_guard lock(owner->mutex_);
                if (--owner->owed_ == 0) {
                    owner->settled_.notify_all();
                }
            }
        }

    private:
        OwedCompletions* owner_;
    };

    // Whether nothing is owed any more, waiting up to limit.
    bool waitSettled(std::chrono::milliseconds limit) {
        std::unique_lock lock(mutex_);
        return settled_.wait_for(lock, limit, [this] { return owed_ == 0; });
    }

private:
    void shutdown() override {}

    std::mutex mutex_;
    std::condition_variable settled_;
    std::size_t owed_ = 0;
};

template <class Handler, class... Values>
class PostedCompletion {
public:
    explicit PostedCompletion(Handler handler)
        : debt_(asio::use_service<OwedCompletions>(
              asio::query(asio::get_associated_executor(handler), asio::execution::context))),
          work_(asio::make_work_guard(asio::get_associated_executor(handler))),
          handler_(std::move(handler)) {}

    void operator()(Values... values) {
        auto executor = work_.get_executor();
        asio::post(executor,
                   [handler = std::move(handler_), ... values = std::move(values)]() mutable {
                       std::move(handler)(std::move(values)...);
                   });
        work_.reset();
        debt_.settle();
    }

private:
    // First, so that it is settled last, after the handler and the guard let go.
    OwedCompletions::Debt debt_;
    asio::executor_work_guard<asio::associated_executor_t<Handler>> work_;
    Handler handler_;
};

}  // namespace skiff::runtime::detail
