#pragma once
// Time that moves only when the test says, and a relay whose answers the test scripts.

#include <algorithm>
#include <chrono>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <vector>

#include "common/once_reply.hpp"
#include "common/run_sync.hpp"
#include "mount/probe_link.hpp"
#include "relay/relay_schema.hpp"

namespace skiff::mount::testing {

class ManualClock : public ProbeClock {
public:
    TimePoint now() const override {
        std::lock_guard guard(mutex_);
        return now_;
    }

    asio::awaitable<void> sleep(Duration d) override {
        runtime::OnceReply<void> wake;
        add(true, d, [wake] { wake.resume(); });
        co_await std::move(wake).wait();
    }

    void deadline(asio::any_io_executor, Duration d, std::function<void()> expired) override {
        add(false, d, std::move(expired));
    }

    // Moves time on by d and fires what fell due.
    void advance(Duration d) {
        fireUntil([&] {
            std::lock_guard guard(mutex_);
            return now_ += d;
        }());
    }

    // Once a loop sleeps, moves time to its wake-up. False when none slept in time.
    bool wakeSleeper() {
        if (!skiff::testing::eventually([&] { return sleeping() > 0; })) {
            return false;
        }
        Duration wait = Duration::max();
        {
            std::lock_guard guard(mutex_);
            for (const auto& timer : timers_) {
                if (timer.sleeper) {
                    wait = std::min(wait, timer.due - now_);
                }
            }
        }
        advance(wait);
        return true;
    }

    // Wakes sleeping loops until done() holds; false when it did not within the wait limit.
    bool driveUntil(const std::function<bool()>& done) {
        return skiff::testing::eventually([&] {
            if (done()) {
                return true;
            }
            if (sleeping() > 0) {
                wakeSleeper();
            }
            return false;
        });
    }

    // Fires every timer left, so that the coroutines waiting on them (which hold the probe,
    // which holds this clock) resume or, once the runtime has stopped, are destroyed with it.
    void release() { fireUntil(TimePoint::max()); }

    std::size_t sleeping() const {
        std::lock_guard guard(mutex_);
        return std::count_if(timers_.begin(), timers_.end(), [](auto& t) { return t.sleeper; });
    }

private:
    struct Timer {
        TimePoint due;
        std::function<void()> fire;
        bool sleeper;  // a loop's sleep rather than a request's deadline
    };

    void add(bool sleeper, Duration d, std::function<void()> fire) {
        std::lock_guard guard(mutex_);
        timers_.push_back({now_ + d, std::move(fire), sleeper});
    }
    // Fires, outside the lock, the timers due by `until`; sleeping loops due at the same
    // moment wake before deadlines expire.
    void fireUntil(TimePoint until) {
        std::vector<Timer> due;
        {
            std::lock_guard guard(mutex_);
            auto split = std::partition(timers_.begin(), timers_.end(),
                                        [&](const Timer& t) { return t.due > until; });
            std::move(split, timers_.end(), std::back_inserter(due));
            timers_.erase(split, timers_.end());
        }
        std::stable_partition(due.begin(), due.end(), [](const Timer& t) { return t.sleeper; });
        for (auto& timer : due) {
            timer.fire();
        }
    }

    mutable std::mutex mutex_;
    TimePoint now_ = std::chrono::system_clock::now();
    std::vector<Timer> timers_;
};

// Answers each probe request with the next scripted status (then `fallback`); kSilent
// never answers, until the tunnel is invalidated.
class ScriptedLink : public ProbeLink {
public:
    static constexpr std::int64_t kSilent = -1;
    static constexpr auto kTransportFailed =
        static_cast<std::int64_t>(relay::UsbMuxRelayError::transportFailed);

    asio::awaitable<std::int64_t> sendProbe() override {
        runtime::OnceReply<std::int64_t> answer;
        {
            std::lock_guard guard(mutex_);
            ++sends_;
            const auto status = script_.empty() ? fallback_ : script_.front();
            if (!script_.empty()) {
                script_.pop_front();
            }
            if (status == kSilent) {
                silent_.push_back(answer);
            } else {
                answer.resume(status);
            }
        }
        co_return co_await std::move(answer).wait();
    }

    std::optional<TimePoint> lastContact() const override {
        std::lock_guard guard(mutex_);
        return contact_;
    }

    asio::awaitable<void> invalidate() override {
        {
            std::lock_guard guard(mutex_);
            ++invalidations_;
        }
        release();
        co_return;
    }

    // Fails every request still waiting for an answer.
    void release() {
        std::vector<runtime::OnceReply<std::int64_t>> waiting;
        {
            std::lock_guard guard(mutex_);
            waiting.swap(silent_);
        }
        for (auto& answer : waiting) {
            answer.resume(kTransportFailed);
        }
    }

    void script(std::deque<std::int64_t> statuses, std::int64_t fallback) {
        std::lock_guard guard(mutex_);
        script_ = std::move(statuses);
        fallback_ = fallback;
    }
    void setContact(TimePoint at) {
        std::lock_guard guard(mutex_);
        contact_ = at;
    }
    int sends() const {
        std::lock_guard guard(mutex_);
        return sends_;
    }
    int invalidations() const {
        std::lock_guard guard(mutex_);
        return invalidations_;
    }

private:
    mutable std::mutex mutex_;
    std::deque<std::int64_t> script_;
    std::int64_t fallback_ = 0;
    std::optional<TimePoint> contact_;
    std::vector<runtime::OnceReply<std::int64_t>> silent_;
    int sends_ = 0;
    int invalidations_ = 0;
};

}  // namespace skiff::mount::testing
