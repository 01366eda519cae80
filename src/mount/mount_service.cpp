#include "mount/mount_service.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <system_error>

#include "common/log.hpp"
#include "mount/mount_table.hpp"
#include "mount/process_runner.hpp"
#include "mount/volume_state.hpp"

namespace skiff::mount {
namespace {

namespace fs = std::filesystem;

constexpr const char* kSourceAnchorName = "source-anchor";

std::string systemMessage(int error) {
    return std::error_code(error, std::generic_category()).message();
}

transfer::SharedFileStorage storageFor(const MountServiceOptions& options) {
    if (options.container) {
        return transfer::SharedFileStorage(*options.container);
    }
    return transfer::SharedFileStorage();
}

}  // namespace

MountServiceOptions MountServiceOptions::forThisSystem() {
    return MountServiceOptions{
        .mountTool = SKIFF_MOUNT_HELPER,
        .unmountTool = "/usr/bin/fusermount3",
        .openTool = "/usr/bin/xdg-open",
        .mountTable = "/proc/self/mountinfo",
        .mountPoint = std::nullopt,
        .container = std::nullopt,
    };
}

MountService::MountService(MountServiceOptions options)
    : options_(std::move(options)), storage_(storageFor(options_)) {}

std::optional<fs::path> MountService::mountPoint() const {
    if (options_.mountPoint) {
        return options_.mountPoint;
    }
    return defaultMountPoint();
}

bool MountService::isMounted() const {
    const auto path = mountPoint();
    if (!path) {
        return false;
    }
    std::ifstream in(options_.mountTable);
    std::stringstream table;
    table << in.rdbuf();
    const auto type = mountedTypeAt(table.str(), path->string());
    return type && isSkiffType(*type);
}

asio::awaitable<void> MountService::mount() {
    auto job = [this] { mountNow(); };
    co_await tools_.run(std::move(job));
}

asio::awaitable<void> MountService::unmount(bool force) {
    auto job = [this, force] { unmountNow(force); };
    co_await tools_.run(std::move(job));
}

asio::awaitable<void> MountService::unmountGracefully(std::chrono::steady_clock::duration timeout) {
    const auto path = mountPoint();
    if (!path || !isMounted()) {
        throw MountServiceError::notMounted();
    }
    // Named: GCC 12 cannot keep a braced list alive across co_await.
    Arguments arguments{"-u", path->string()};
    bool failed = false;
    try {
        co_await runCommandTimed(options_.unmountTool, std::move(arguments), timeout);
    } catch (const std::exception&) {
        failed = true;
    }
    if (failed && isMounted()) {
        co_await unmount(true);
        co_return;
    }
    auto tidy = [this] { removeEmptyMountPoint(); };
    co_await tools_.run(std::move(tidy));
}

void MountService::mountNow() const {
    if (isMounted()) {
        throw MountServiceError::alreadyMounted();
    }
    const auto anchor = prepareSourceAnchor();
    const auto path = prepareMountPoint();
    runCommand(options_.mountTool, {anchor.string(), path.string()});
    try {
        runCommand(options_.openTool, {path.string()});
    } catch (const std::exception&) {
        // Opening a window is a courtesy: a desktop without a file browser still mounts.
    }
}

void MountService::unmountNow(bool force) const {
    const auto path = mountPoint();
    if (!path || !isMounted()) {
        throw MountServiceError::notMounted();
    }
    if (force) {
        runCommand(options_.unmountTool, {"-u", "-z", path->string()});
    } else {
        runCommand(options_.unmountTool, {"-u", path->string()});
    }
    removeEmptyMountPoint();
}

void MountService::removeEmptyMountPoint() const {
    // Only an empty folder goes, and only once nothing is mounted on it: rmdir refuses both
    // a folder with anything in it and a mount point in use, without asking the volume.
    if (const auto path = mountPoint(); path && !isMounted()) {
        ::rmdir(path->c_str());
    }
}

void MountService::cleanUpAfterEarlierRun() const {
    removeEmptyMountPoint();
    fs::path container;
    try {
        container = storage_.containerPath();
    } catch (const transfer::SharedFileStorageError&) {
        return;
    }
    long removed = 0;
    std::error_code error;
    // Only the top level: the folders in it (the volume's local copies) are not ours.
    for (fs::directory_iterator it(container, error), end; !error && it != end;
         it.increment(error)) {
        const std::string name = it->path().filename().string();
        if (transfer::isTransferFileName(name)) {
            storage_.remove(name);
            ++removed;
        }
    }
    if (removed > 0) {
        log::xpc().info("removed %{public}ld transfer files that an earlier run left", removed);
    }
}

fs::path MountService::prepareSourceAnchor() const {
    fs::path anchor;
    try {
        anchor = storage_.containerPath() / kSourceAnchorName;
    } catch (const transfer::SharedFileStorageError&) {
        throw MountServiceError::sourceUnavailable("App Group container unavailable");
    }
    struct stat st {};
    if (::stat(anchor.c_str(), &st) == 0) {
        if (!S_ISDIR(st.st_mode)) {
            throw MountServiceError::sourceUnavailable(anchor.string());
        }
        return anchor;
    }
    const std::string failure = "Failed to create source anchor: ";
    try {
        storage_.makeContainer();
    } catch (const transfer::SharedFileStorageError& error) {
        throw MountServiceError::commandFailed(failure + error.cause().message());
    }
    if (::mkdir(anchor.c_str(), 0700) != 0 && errno != EEXIST) {
        throw MountServiceError::commandFailed(failure + systemMessage(errno));
    }
    return anchor;
}

fs::path MountService::prepareMountPoint() const {
    const std::string failure = "Failed to create mount point: ";
    const auto path = mountPoint();
    if (!path) {
        throw MountServiceError::commandFailed(failure + "no home directory is set");
    }
    struct stat st {};
    if (::stat(path->c_str(), &st) == 0) {
        if (!S_ISDIR(st.st_mode)) {
            throw MountServiceError::commandFailed("Mount point exists but is not a directory: " +
                                                   path->string());
        }
        std::error_code error;
        if (!fs::is_empty(*path, error) || error) {
            throw MountServiceError::commandFailed(
                "The mount point " + path->string() +
                " is not empty: what is in it would be hidden under the volume. Move it "
                "elsewhere, then mount again.");
        }
        return *path;
    }
    std::error_code error;
    fs::create_directories(*path, error);
    if (error) {
        throw MountServiceError::commandFailed(failure + error.message());
    }
    return *path;
}

}  // namespace skiff::mount
