#pragma once
// IoRuntime: the process's executors, one io_context run by a small thread pool.
//
// skiffd makes one in main; tests make their own and stop them. start() and
// stop() may be called from any thread but one of the pool's own. stop() stops the context
// and joins the threads; handlers still queued are destroyed with the context, so a
// coroutine suspended at that point is destroyed, never resumed. drain() first waits for
// the completions that blocking jobs on other threads (SerialQueue's) still owe the
// context, so that none is posted into it once it is gone. Declare the runtime before (so
// that it outlives) every object that uses its executor.

#include <asio.hpp>
#include <chrono>
#include <cstddef>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "common/check.hpp"
#include "common/runtime_detail.hpp"

namespace skiff::runtime {

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

    // Waits up to `limit` for the completions jobs on other threads still owe, while the
    // pool runs on, then stops, and waits once more: the last handlers the pool ran may
    // have queued jobs of their own, whose completions go into the stopped context, which
    // is still there to take them.
    void drain(std::chrono::milliseconds limit) {
        auto& owed = asio::use_service<detail::OwedCompletions>(context_);
        owed.waitSettled(limit);
        stop();
        owed.waitSettled(limit);
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

}  // namespace skiff::runtime
