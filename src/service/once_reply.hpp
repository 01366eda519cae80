#pragma once
// Lets several racing parties (a result, a time-out, a cancellation, a failed
// remote call) try to finish one waiter: the first resume hands its value to
// the waiter, every later one does nothing. OnceReplyHolder shares one guard
// between all the callbacks that may finish it.

#include <memory>
#include <mutex>
#include <type_traits>
#include <utility>

#include "common/check.hpp"
#include "common/log.hpp"

namespace skiff::service {

template <class T>
class OnceReply {
public:
    OnceReply() = default;

    template <class Continuation>
    requires std::is_invocable_v<std::decay_t<Continuation> &&, T> explicit OnceReply(
        Continuation&& continuation) {
        install(std::forward<Continuation>(continuation));
    }

    ~OnceReply() {
        if (continuation_) {
            // The waiter will never run; that is a bug in whoever owned this guard.
            log::xpc().fault("OnceReply destroyed without resuming its waiter");
        }
    }

    OnceReply(const OnceReply&) = delete;
    OnceReply& operator=(const OnceReply&) = delete;

    // Sets the waiter to finish. Move-only callables (completion handlers) are fine.
    template <class Continuation>
    requires std::is_invocable_v<std::decay_t<Continuation> &&, T> void install(
        Continuation&& continuation) {
        using Stored = Model<std::decay_t<Continuation>>;
        auto model = std::make_unique<Stored>(std::forward<Continuation>(continuation));
        std::lock_guard guard(lock_);
        if (continuation_) {
            fatalError("OnceReply already has a waiter");
        }
        continuation_ = std::move(model);
    }

    // Returns true when this call was the one that resumed the waiter.
    bool resume(T value) {
        std::unique_ptr<Concept> taken;
        {
            std::lock_guard guard(lock_);
            taken = std::move(continuation_);
        }
        if (!taken) {
            return false;
        }
        // Called outside the lock: the waiter may resume again or drop the guard.
        taken->call(std::move(value));
        return true;
    }

private:
    struct Concept {
        virtual ~Concept() = default;
        virtual void call(T value) = 0;
    };

    template <class F>
    struct Model final : Concept {
        template <class G>
        explicit Model(G&& f) : function(std::forward<G>(f)) {}
        void call(T value) override { std::move(function)(std::move(value)); }
        F function;
    };

    std::mutex lock_;
    std::unique_ptr<Concept> continuation_;
};

// A copyable handle on one shared OnceReply.
template <class T>
class OnceReplyHolder {
public:
    OnceReplyHolder() : once(std::make_shared<OnceReply<T>>()) {}

    template <class Continuation>
    requires std::is_invocable_v<std::decay_t<Continuation> &&, T> explicit OnceReplyHolder(
        Continuation&& continuation)
        : once(std::make_shared<OnceReply<T>>(std::forward<Continuation>(continuation))) {}

    bool resume(T value) const { return once->resume(std::move(value)); }

    std::shared_ptr<OnceReply<T>> once;
};

}  // namespace skiff::service
