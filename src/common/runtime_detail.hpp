#pragma once
// Building blocks shared by the runtime's primitives (task.hpp, actor.hpp,
// serial_queue.hpp, async_mutex.hpp, once_reply.hpp); nothing outside them uses these.

#include <asio.hpp>
#include <memory>
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
template <class Handler, class... Values>
class PostedCompletion {
public:
    explicit PostedCompletion(Handler handler)
        : work_(asio::make_work_guard(asio::get_associated_executor(handler))),
          handler_(std::move(handler)) {}

    void operator()(Values... values) {
        auto executor = work_.get_executor();
        asio::post(executor,
                   [handler = std::move(handler_), ... values = std::move(values)]() mutable {
                       std::move(handler)(std::move(values)...);
                   });
        work_.reset();
    }

private:
    asio::executor_work_guard<asio::associated_executor_t<Handler>> work_;
    Handler handler_;
};

}  // namespace skiff::runtime::detail
