#pragma once
// The mounted volume as the rest of the service sees it: whether it is mounted, a mount or
// an unmount on demand, and who hears that a mount or unmount happened. MountService is
// the real one; tests give fakes.
//
// Threads: isMounted() reads the mount table only and never calls into the file system (a
// stat under the mounted volume waits for skiff-fs, which may be waiting for this service),
// so any thread may call it, an io_context thread included. mount() and unmount() run the
// system's tools on a thread of the volume's own and resume the caller on its executor, so
// the caller's io_context keeps turning while a tool runs.

#include <asio/awaitable.hpp>

#include "mount/mount_error.hpp"

namespace skiff::mount {

class Volume {
public:
    virtual ~Volume() = default;

    virtual bool isMounted() const = 0;
    // Throws MountServiceError (alreadyMounted, the preparation's or the tool's failure) or
    // std::system_error when the tool cannot be launched.
    virtual asio::awaitable<void> mount() = 0;
    // Plain or forced unmount. Throws MountServiceError (notMounted when nothing is
    // mounted, commandFailed with the tool's words) or std::system_error when the tool
    // cannot be launched.
    virtual asio::awaitable<void> unmount(bool force) = 0;
};

// Hears of mounts and unmounts carried out by others (the relay probe switches loops).
// Called from any thread; implementations hop to their own executor.
class VolumeListener {
public:
    virtual ~VolumeListener() = default;
    virtual void volumeDidMount() = 0;
    virtual void volumeDidUnmount() = 0;
    // The file system reports that it is gone. After a forced unmount this is only the echo
    // of that unmount, which must not cancel what the forcing side planned (a remount once
    // the phone is back); anything else is an unmount like any other.
    virtual void fileSystemDidEnd() { volumeDidUnmount(); }
};

}  // namespace skiff::mount
