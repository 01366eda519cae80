#pragma once
// A volume that is mounted when the test says so and counts the unmounts asked of it.

#include <asio.hpp>
#include <atomic>
#include <mutex>
#include <optional>
#include <vector>

#include "mount/volume.hpp"

namespace skiff::mount::testing {

class StubVolume : public Volume {
public:
    bool isMounted() const override { return mounted; }

    asio::awaitable<void> unmount(bool force) override {
        std::optional<MountServiceError> error;
        {
            std::lock_guard guard(mutex_);
            forces_.push_back(force);
            error = failure;
        }
        if (!mounted) {
            throw MountServiceError::notMounted();
        }
        if (error) {
            throw *error;
        }
        mounted = false;
        co_return;
    }

    // Every unmount asked for, by its force flag.
    std::vector<bool> unmounts() const {
        std::lock_guard guard(mutex_);
        return forces_;
    }
    void failWith(MountServiceError error) {
        std::lock_guard guard(mutex_);
        failure = std::move(error);
    }

    std::atomic<bool> mounted{false};

private:
    mutable std::mutex mutex_;
    std::optional<MountServiceError> failure;
    std::vector<bool> forces_;
};

}  // namespace skiff::mount::testing
