#pragma once
// MountService: mounts and unmounts the phone's volume by running the system's tools, and
// tells from the kernel's mount table whether it is mounted. It keeps no state of its
// own; the table is read each time.
//
//   mount            mount.skiff <source anchor> <mount point>, then xdg-open <mount point>
//                    (a failure to open is ignored)
//   unmount          fusermount3 -u <mount point>
//   forced unmount   fusermount3 -u -z <mount point>
//
// The mount point is $XDG_DATA_HOME/Harbor/mnt (or ~/.local/share/Harbor/mnt), looked up
// at each use; the source anchor is the directory "source-anchor" in the shared
// container. The anchor is made when missing and kept. The mount point exists only while
// the volume is mounted: it is made just before a mount and removed, when empty, after an
// unmount, so that what a user saves there meanwhile fails instead of landing on the local
// disk, to be hidden by the next mount (a mode alone would not stop root). A mount over a
// folder that holds anything is refused.
//
// Threads: isMounted() may be called from any thread (see volume.hpp). mount() and
// unmount(force) run their tools, one at a time in the order asked, on a thread of the
// service's own and resume the caller on its executor: mount.skiff and skiff-fs call the
// service over the bus while they run, so the caller's io_context must keep turning.
// unmountGracefully() waits for its tool on the caller's executor without blocking it.
// The caller keeps the service alive until every call it made has finished; the
// destructor lets the tool runs already queued finish, and must not be called from a
// coroutine of its own.

#include <asio/awaitable.hpp>
#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

#include "common/serial_queue.hpp"
#include "mount/volume.hpp"
#include "transfer/shared_file_storage.hpp"

namespace skiff::mount {

// Where the service finds its tools and the mount table; tests point them at fakes.
struct MountServiceOptions {
    std::string mountTool;
    std::string unmountTool;
    std::string openTool;
    std::filesystem::path mountTable;
    // Nothing: the data directory of this user's environment, looked up at each use.
    std::optional<std::filesystem::path> mountPoint;
    // Nothing: the default shared container.
    std::optional<std::filesystem::path> container;

    // The installed mount.skiff, fusermount3 and xdg-open, and /proc/self/mountinfo.
    static MountServiceOptions forThisSystem();
};

class MountService final : public Volume {
public:
    explicit MountService(MountServiceOptions options = MountServiceOptions::forThisSystem());
    MountService(const MountService&) = delete;
    MountService& operator=(const MountService&) = delete;

    // The mount point's path; nothing when the environment names no home directory.
    std::optional<std::filesystem::path> mountPoint() const;

    // Whether the last mount at the mount point is of type skiff or fuse.skiff. A table
    // that cannot be read, or another file system there, counts as not mounted.
    bool isMounted() const override;

    // Fails with alreadyMounted (running nothing), sourceUnavailable or commandFailed
    // while preparing the directories (a mount point that is not an empty folder among
    // them), commandFailed with the tool's words, or std::system_error when mount.skiff
    // cannot be launched.
    asio::awaitable<void> mount() override;

    // Fails with notMounted, or as the tool did.
    asio::awaitable<void> unmount(bool force) override;

    // The plain unmount, given timeout (callers pass 3 s). When it fails or hangs (then
    // it is terminated) and the volume is still mounted, a forced unmount follows and
    // its outcome is the call's; when the volume went anyway, the call succeeds.
    asio::awaitable<void> unmountGracefully(std::chrono::steady_clock::duration timeout);

    // What a run of the service that ended without its own clean-up (a crash) left behind:
    // the empty mount point when nothing is mounted on it, and the transfer files in the
    // shared container (its other files and folders, the volume's own folder among them,
    // are left alone). Blocks; call once at start, before any transfer can begin.
    void cleanUpAfterEarlierRun() const;

private:
    void mountNow() const;
    void unmountNow(bool force) const;
    void removeEmptyMountPoint() const;
    std::filesystem::path prepareSourceAnchor() const;
    std::filesystem::path prepareMountPoint() const;

    const MountServiceOptions options_;
    const transfer::SharedFileStorage storage_;
    // Declared last: destroyed first, so queued runs still see the members above.
    mutable runtime::SerialQueue tools_{"mount-tools"};
};

}  // namespace skiff::mount
