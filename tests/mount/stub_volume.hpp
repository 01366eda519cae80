#pragma once
// A volume that is mounted when the test says so or on request, and notes the mounts and
// unmounts asked of it.

#include <asio.hpp>
#include <atomic>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "mount/volume.hpp"

namespace skiff::mount::testing {

class StubVolume : public Volume {
public:
    bool isMounted() const override { return mounted; }

    asio::awaitable<void> mount() override {
        note("mount");
        if (mounted.exchange(true)) {
            throw MountServiceError::alreadyMounted();
        }
        co_return;
    }

    asio::awaitable<void> unmount(bool force) override {
        const auto error = note(force ? "forced unmount" : "unmount");
        if (!mounted) {
            throw MountServiceError::notMounted();
        }
        if (error) {
            throw *error;
        }
        mounted = false;
        co_return;
    }

    // The mounts and unmounts asked for, in order.
    std::vector<std::string> calls() const {
        std::lock_guard guard(mutex_);
        return calls_;
    }
    void failWith(MountServiceError error) {
        std::lock_guard guard(mutex_);
        failure_ = std::move(error);
    }

    std::atomic<bool> mounted{false};

private:
    // Notes a call; the failure unmounts are told to meet.
    std::optional<MountServiceError> note(const char* call) {
        std::lock_guard guard(mutex_);
        calls_.emplace_back(call);
        return failure_;
    }

    mutable std::mutex mutex_;
    std::optional<MountServiceError> failure_;
    std::vector<std::string> calls_;
};

}  // namespace skiff::mount::testing
