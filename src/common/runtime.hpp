#pragma once
// The service's concurrency runtime, built on standalone asio and C++20 coroutines.
//
// IoRuntime    The process's executors: one io_context run by a small thread pool.
//              skiffd makes one in main; tests make their own and stop them. stop() stops the
//              context and joins the threads; handlers still queued are destroyed with the context,
//              so a coroutine suspended at that point is destroyed, never resumed. Declare the
//              runtime before (so that it outlives) every object that uses its executor.
//
// spawnTask    An unstructured task: co_spawn detached on an executor. An exception
//              that escapes the task is logged, never rethrown into the pool.
//
// Actor        A serialised object owns a strand and exposes asio::awaitable methods.
//              A public method wraps its body with isolated(body): callers await it
//              from any executor, the body runs on the actor's strand and the caller
//              resumes on its own executor. Like an actor, the strand lets other calls
//              in while a body is suspended at a co_await, so state must be re-checked
//              after every co_await. Bodies are member coroutines, never capturing
//              lambdas (a lambda's captures die before the coroutine does).
//
// SerialQueue  A labelled dedicated thread that runs jobs in order: the home of every
//              blocking native call, which must never run on the io_context threads.
//              co_await queue.run(f) runs f() there and resumes on the caller's
//              executor with its result or its exception. The destructor runs the jobs
//              already queued, then joins.
//
// OneShot<T>   Resumes a suspended caller exactly once. wait() may be awaited once
//              (a second wait is a programming error and stops the process);
//              resume()/fail() may be called from any thread, and every call after the
//              first is a no-op that returns false. The waiter always resumes through a
//              post to its own executor, never inline in the caller of resume(). When
//              every copy is dropped unresumed, the waiting coroutine is destroyed.
//              T (when not void) must be default-constructible.

#include <pthread.h>
#include <asio.hpp>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "common/check.hpp"
#include "common/log.hpp"

namespace skiff::runtime {

namespace detail {

// A move-only nullary job (std::function needs copyable targets; asio handlers are not).
class Job {
public:
    template <class F>
    explicit Job(F f) : impl_(std::make_unique<Impl<F>>(std::move(f))) {}
    void operator()() { impl_->call(); }

private:
    struct Base {
        virtual ~Base() = default;
        virtual void call() = 0;
    };
    template <class F>
    struct Impl final : Base {
        explicit Impl(F f) : fn(std::move(f)) {}
        void call() override { fn(); }
        F fn;
    };
    std::unique_ptr<Base> impl_;
};

// The value carried by a completion: void becomes an empty placeholder.
template <class T>
using ValueOf = std::conditional_t<std::is_void_v<T>, std::monostate, T>;

// Hands (error, value) to an asio completion handler through a post to the handler's
// own executor, keeping that executor busy until then.
template <class Handler, class V>
class PostedCompletion {
public:
    explicit PostedCompletion(Handler handler)
        : work_(asio::make_work_guard(asio::get_associated_executor(handler))),
          handler_(std::move(handler)) {}

    void operator()(std::exception_ptr error, V value) {
        auto executor = work_.get_executor();
        asio::post(executor,
                   [handler = std::move(handler_), error, value = std::move(value)]() mutable {
                       std::move(handler)(error, std::move(value));
                   });
        work_.reset();
    }

private:
    asio::executor_work_guard<asio::associated_executor_t<Handler>> work_;
    Handler handler_;
};

}  // namespace detail

class IoRuntime {
public:
    explicit IoRuntime(std::size_t threadCount = 2) : threadCount_(threadCount ? threadCount : 1) {}
    ~IoRuntime() { stop(); }
    IoRuntime(const IoRuntime&) = delete;
    IoRuntime& operator=(const IoRuntime&) = delete;

    asio::io_context& context() { return context_; }
    asio::any_io_executor executor() { return context_.get_executor(); }

    // Starts the pool; does nothing when it already runs.
    void start() {
        std::lock_guard lock(mutex_);
        if (!threads_.empty()) {
            return;
        }
        context_.restart();
        work_.emplace(asio::make_work_guard(context_));
        for (std::size_t i = 0; i < threadCount_; ++i) {
            threads_.emplace_back([this] { context_.run(); });
        }
    }

    // Stops the context and joins the pool; does nothing when it is not running.
    // Must not be called from one of the pool's own threads.
    void stop() {
        std::vector<std::thread> threads;
        {
            std::lock_guard lock(mutex_);
            threads.swap(threads_);
            work_.reset();
        }
        for (auto& t : threads) {
            if (t.get_id() == std::this_thread::get_id()) {
                fatalError("IoRuntime stopped from its own thread");
            }
        }
        context_.stop();
        for (auto& t : threads) {
            t.join();
        }
    }

private:
    std::size_t threadCount_;
    asio::io_context context_;
    std::mutex mutex_;
    std::optional<asio::executor_work_guard<asio::io_context::executor_type>> work_;
    std::vector<std::thread> threads_;
};

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

class SerialQueue {
public:
    explicit SerialQueue(std::string label) : label_(std::move(label)) {
        thread_ = std::thread([this] { loop(); });
    }
    ~SerialQueue() {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_one();
        thread_.join();
    }
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    const std::string& label() const { return label_; }

    // Runs f() on the queue's thread after every job queued before it.
    template <class F>
    asio::awaitable<std::invoke_result_t<F&>> run(F f) {
        using R = std::invoke_result_t<F&>;
        using V = detail::ValueOf<R>;
        // GCC 12 may destroy objects handed through async_initiate twice, so only plain
        // pointers go through it: fn lives in this frame, which the queued job keeps
        // alive (it owns the handler) until the job has run.
        F fn = std::move(f);
        auto initiate = [this, fnp = &fn](auto handler) {
            using Handler = decltype(handler);
            enqueue(detail::Job(
                [fnp, done = detail::PostedCompletion<Handler, V>(std::move(handler))]() mutable {
                    std::exception_ptr error;
                    V result{};
                    try {
                        if constexpr (std::is_void_v<R>) {
                            (*fnp)();
                        } else {
                            result = (*fnp)();
                        }
                    } catch (...) {
                        error = std::current_exception();
                    }
                    done(error, std::move(result));
                }));
        };
        auto value = co_await asio::async_initiate<const asio::use_awaitable_t<>&,
                                                   void(std::exception_ptr, V)>(
            initiate, asio::use_awaitable);
        if constexpr (!std::is_void_v<R>) {
            co_return std::move(value);
        }
    }

private:
    void enqueue(detail::Job job) {
        // Notified under the lock: once the job has run, its waiter may destroy the queue,
        // and the condition variable with it, before a notify made after unlocking.
        std::lock_guard lock(mutex_);
        jobs_.push_back(std::move(job));
        wake_.notify_one();
    }

    void loop() {
        // The kernel keeps 15 characters of a thread name; the tail tells queues apart.
        std::string name = label_.size() > 15 ? label_.substr(label_.size() - 15) : label_;
        pthread_setname_np(pthread_self(), name.c_str());
        for (;;) {
            std::unique_lock lock(mutex_);
            wake_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
            if (jobs_.empty()) {
                return;
            }
            detail::Job job = std::move(jobs_.front());
            jobs_.pop_front();
            lock.unlock();
            job();
        }
    }

    std::string label_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<detail::Job> jobs_;
    bool stopping_ = false;
    std::thread thread_;
};

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
            detail::PostedCompletion<Handler, V> completion(std::move(handler));
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
