#pragma once
// Mounting and unmounting on request, the phone's mount control and the desktop's alike:
// the tool runs, and on success the volume's listener hears of it, so the relay probe
// changes loops. One implementation serves both callers, so they cannot drift apart.
//
// Threads: callable from any executor; the tools run on the volume's own thread and the
// caller resumes on its executor.

#include <asio/awaitable.hpp>

#include "mount/mount_error.hpp"

namespace skiff::mount {

class VolumeControl {
public:
    virtual ~VolumeControl() = default;
    // Throw MountServiceError (alreadyMounted, notMounted, the tool's words) or
    // std::system_error when a tool cannot be launched.
    virtual asio::awaitable<void> mountVolume() = 0;
    // Forced at once with force; else gracefully, forced only when that fails or hangs.
    virtual asio::awaitable<void> unmountVolume(bool force) = 0;
};

}  // namespace skiff::mount
