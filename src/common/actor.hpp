#pragma once
// Actor: a serialised object runs on a strand and exposes asio::awaitable methods.
//
// A public method wraps its body with isolated(owner, &Class::body, args...): callers
// await it from any executor, the body runs on the actor's strand and the caller resumes
// on its own executor. A caller that already runs on that strand (another actor of the
// same strand, or the actor itself) runs the body directly, with no hand-over. The owner
// is the shared_ptr the body holds while it runs (the lifetime rule in task.hpp), usually
// the actor's own shared_from_this(). Like an actor, the strand lets other calls in while
// a body is suspended at a co_await, so state must be re-checked after every co_await.
// spawnIsolated starts a task on the strand the same way.
//
// Built on a strand, an actor shares it: skiffd runs its serialised core (relay bridge,
// tunnel engine, probe, transfers) on one strand, so that their calls to each other are
// plain calls. Built on any other executor, it makes a strand of its own (as tests do).
//
// State that only the strand may touch is checked with assertIsolated(). An actor may be
// destroyed from any thread once no body runs (which the owners see to).

#include <asio.hpp>
#include <exception>
#include <memory>
#include <optional>
#include <type_traits>
#include <typeinfo>
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
    explicit Actor(asio::any_io_executor executor) : strand_(strandFor(std::move(executor))) {}

    // Runs body(owner, args...) on the strand; the awaiting caller resumes on its own
    // executor with the body's result or exception.
    template <class Object, class Body, class... Args>
    auto isolated(std::shared_ptr<Object> owner, Body body, Args&&... args) const {
        return onStrand(strand_,
                        detail::owned(std::move(owner), body, std::forward<Args>(args)...));
    }

    // Starts body(owner, args...) as a task on the strand.
    template <class Object, class Body, class... Args>
    void spawnIsolated(std::shared_ptr<Object> owner, Body body, Args&&... args) const {
        spawnTask(strand_, std::move(owner), body, std::forward<Args>(args)...);
    }

    void assertIsolated(SourceLocation where = SourceLocation::current()) const {
        if (!isIsolated()) {
            fatalError("actor state touched off its strand", where);
        }
    }

private:
    // The strand an executor is, if it is one (target() alone does not check the type).
    static const Strand* strandIn(const asio::any_io_executor& executor) {
        return executor.target_type() == typeid(Strand) ? executor.target<Strand>() : nullptr;
    }

    static Strand strandFor(asio::any_io_executor executor) {
        if (const auto* shared = strandIn(executor)) {
            return *shared;
        }
        return asio::make_strand(std::move(executor));
    }

    // Takes the strand by value: the frame must not reach back into the actor.
    template <class T>
    static asio::awaitable<T> onStrand(Strand strand, asio::awaitable<T> body) {
        // Already on the strand: serialised as it is, and the strand's resumptions are
        // this caller's own, so the body runs inline.
        const asio::any_io_executor caller = co_await asio::this_coro::executor;
        if (const auto* own = strandIn(caller); own != nullptr && *own == strand) {
            co_return co_await std::move(body);
        }
        std::exception_ptr error;
        std::optional<detail::ValueOf<T>> value;
        try {
            if constexpr (std::is_void_v<T>) {
                co_await asio::co_spawn(strand, std::move(body), asio::use_awaitable);
                value.emplace();
            } else {
                value.emplace(
                    co_await asio::co_spawn(strand, std::move(body), asio::use_awaitable));
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

    Strand strand_;
};

}  // namespace skiff::runtime
