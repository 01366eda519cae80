#pragma once
// SerialQueue: a labelled dedicated thread that runs jobs in order, the home of every
// blocking native call, which must never run on the io_context threads.
//
// co_await queue.run(f) runs f() there and resumes on the caller's executor (through a
// post, never on the queue's thread) with its result or its exception; run() may be
// awaited from any executor. The queue owns f until it has run. queue.post(f) runs f() there
// with nobody waiting, for work whose end concerns no one (closing files after an answer):
// no coroutine is tied to it, so nothing that owns the queue can end on the queue's thread.
// The destructor runs the jobs already queued, then joins; it must not run on the queue's
// own thread.

#include <pthread.h>
#include <asio.hpp>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>

#include "common/runtime_detail.hpp"

namespace skiff::runtime {

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
        // fn lives in this frame, which the queued job keeps alive (it owns the handler)
        // until the job has run; the initiation captures only pointers, so it stays
        // trivially destructible (the co_await temporaries rule in task.hpp).
        F fn = std::move(f);
        auto initiate = [this, fnp = &fn](auto handler) {
            using Handler = decltype(handler);
            enqueue(
                detail::Job([fnp, done = detail::PostedCompletion<Handler, std::exception_ptr, V>(
                                      std::move(handler))]() mutable {
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

    // Runs f() on the queue's thread after every job queued before it; nobody waits for it.
    template <class F>
    void post(F f) {
        enqueue(detail::Job(std::move(f)));
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

}  // namespace skiff::runtime
