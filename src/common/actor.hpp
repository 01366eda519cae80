#pragma once
// Actor: a serialised object owns a strand and exposes asio::awaitable methods.
//
// A public method wraps its body with isolated(body): callers await it from any executor,
// the body runs on the actor's strand and the caller resumes on its own executor. Like an
// actor, the strand lets other calls in while a body is suspended at a co_await, so state
// must be re-checked after every co_await. Bodies are member coroutines, never capturing
// lambdas (a lambda's captures die before the coroutine does).

#include <asio.hpp>
#include <exception>
#include <optional>
#include <type_traits>
#include <utility>

#include "common/check.hpp"
#include "common/runtime_detail.hpp"
#include "common/task.hpp"

namespace skiff::runtime {

class Actor {
public:
    using Strand = asio::strand<asio::any_io_executor>;

    const Strand& strand() const { return strand_; }
    bool isIsolated() const { return strand_.running_in_this_thread(); }

protected:
    explicit Actor(asio::any_io_executor executor) : strand_(asio::make_strand(executor)) {}

    // Runs body on the strand; the awaiting caller resumes on its own executor.
    template <class T>
    asio::awaitable<T> isolated(asio::awaitable<T> body) const {
        std::exception_ptr error;
        std::optional<detail::ValueOf<T>> value;
        try {
            if constexpr (std::is_void_v<T>) {
                co_await asio::co_spawn(strand_, std::move(body), asio::use_awaitable);
                value.emplace();
            } else {
                value.emplace(
                    co_await asio::co_spawn(strand_, std::move(body), asio::use_awaitable));
            }
        } catch (...) {
            error = std::current_exception();
        }
        // co_spawn hands the result over inline, still inside the strand's turn; a post
        // lets the strand go before the caller carries on.
        co_await asio::post(co_await asio::this_coro::executor, asio::use_awaitable);
        if (error) {
            std::rethrow_exception(error);
        }
        if constexpr (!std::is_void_v<T>) {
            co_return std::move(*value);
        }
    }

    // Starts a task inside the actor.
    void spawnIsolated(asio::awaitable<void> task) const { spawnTask(strand_, std::move(task)); }

    // State that only the strand may touch is guarded by this check.
    void assertIsolated(SourceLocation where = SourceLocation::current()) const {
        if (!isIsolated()) {
            fatalError("actor state touched off its strand", where);
        }
    }

private:
    Strand strand_;
};

}  // namespace skiff::runtime
