#include "transfer/shared_file_storage.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <limits>

#include "relay/item_requests.hpp"

namespace skiff::transfer {
namespace {

using Case = SharedFileStorageError::Case;

constexpr const char* kContainerName = "group.Mox.Harbor";

[[noreturn]] void fail(Case c, int error) {
    throw SharedFileStorageError(c, std::error_code(error, std::generic_category()));
}

void requireName(std::string_view name) {
    if (!isContainerFileName(name)) {
        fail(Case::ioFailed, EINVAL);
    }
}

// Makes every missing directory of path, each private to the user (mode 0700).
bool makeDirectories(const std::filesystem::path& path) {
    std::filesystem::path prefix;
    for (const auto& part : path) {
        prefix /= part;
        if (::mkdir(prefix.c_str(), 0700) != 0 && errno != EEXIST) {
            return false;
        }
    }
    return true;
}

bool isAbsolute(const char* value) {
    return value != nullptr && value[0] == '/';
}

}  // namespace

const char* SharedFileStorageError::what() const noexcept {
    switch (case_) {
        case Case::containerUnavailable:
            return "the shared container is unavailable";
        case Case::ioFailed:
            return "a file of the shared container could not be used";
        case Case::invalidSize:
            return "invalid file size";
    }
    return "shared file storage error";
}

std::optional<std::filesystem::path> harborDataPath(const char* xdgDataHome, const char* home) {
    if (isAbsolute(xdgDataHome)) {
        return std::filesystem::path(xdgDataHome) / "Harbor";
    }
    if (isAbsolute(home)) {
        return std::filesystem::path(home) / ".local/share/Harbor";
    }
    return std::nullopt;
}

std::optional<std::filesystem::path> defaultContainerPath(const char* xdgDataHome,
                                                          const char* home) {
    auto data = harborDataPath(xdgDataHome, home);
    if (data) {
        *data /= kContainerName;
    }
    return data;
}

bool isContainerFileName(std::string_view name) {
    return relay::isItemName(name);
}

std::string partFileName(const Uuid& transfer) {
    return "transfer_" + transfer.text() + ".part";
}

std::string finalFileName(const Uuid& transfer) {
    return "transfer_" + transfer.text() + ".bin";
}

bool isTransferFileName(std::string_view name) {
    constexpr std::string_view kPrefix = "transfer_";
    for (const std::string_view suffix : {".part", ".bin"}) {
        if (name.starts_with(kPrefix) && name.ends_with(suffix) &&
            name.size() > kPrefix.size() + suffix.size() &&
            Uuid::parse(
                name.substr(kPrefix.size(), name.size() - kPrefix.size() - suffix.size()))) {
            return true;
        }
    }
    return false;
}

SharedFileStorage::SharedFileStorage()
    : container_(defaultContainerPath(std::getenv("XDG_DATA_HOME"), std::getenv("HOME"))) {}

SharedFileStorage::SharedFileStorage(std::filesystem::path container)
    : container_(std::move(container)) {}

std::filesystem::path SharedFileStorage::containerPath() const {
    if (!container_) {
        throw SharedFileStorageError(Case::containerUnavailable);
    }
    return *container_;
}

std::filesystem::path SharedFileStorage::makeContainer() const {
    openContainer();
    return *container_;
}

UniqueFd SharedFileStorage::openContainer() const {
    const auto path = containerPath();
    UniqueFd dir(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.get() >= 0) {
        return dir;
    }
    if (errno != ENOENT || !makeDirectories(path)) {
        fail(Case::containerUnavailable, errno);
    }
    // The umask could have narrowed the mode, never widened it: make it exactly 0700.
    UniqueFd made(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (made.get() < 0 || ::fchmod(made.get(), 0700) != 0) {
        fail(Case::containerUnavailable, errno);
    }
    return made;
}

UniqueFd SharedFileStorage::create(std::string_view name, std::uint64_t byteCount) const {
    requireName(name);
    const UniqueFd dir = openContainer();
    const std::string file(name);
    UniqueFd fd(::openat(dir.get(), file.c_str(),
                         O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
    // An existing file keeps its mode through O_TRUNC, and the umask may narrow a new one.
    if (fd.get() < 0 || ::fchmod(fd.get(), 0600) != 0) {
        fail(Case::ioFailed, errno);
    }
    if (byteCount == 0) {
        return fd;
    }
    if (byteCount > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max())) {
        fail(Case::ioFailed, EFBIG);
    }
    const auto length = static_cast<off_t>(byteCount);
    // Allocating the blocks, not only the length, makes a full disk show up here rather
    // than in the middle of a transfer.
    int error = ::posix_fallocate(fd.get(), 0, length);
    if (error == EOPNOTSUPP && ::ftruncate(fd.get(), length) == 0) {
        error = 0;
    }
    if (error != 0) {
        fail(Case::ioFailed, error);
    }
    return fd;
}

void SharedFileStorage::moveToFinalName(std::string_view temp, std::string_view final) const {
    requireName(temp);
    requireName(final);
    const UniqueFd dir = openContainer();
    const std::string from(temp);
    const std::string to(final);
    {
        const UniqueFd file(::openat(dir.get(), from.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
        if (file.get() < 0 || ::fsync(file.get()) != 0) {
            fail(Case::ioFailed, errno);
        }
    }
    // rename replaces the final file in one step: a reader sees the old file or the new.
    if (::renameat(dir.get(), from.c_str(), dir.get(), to.c_str()) != 0 ||
        ::fsync(dir.get()) != 0) {
        fail(Case::ioFailed, errno);
    }
}

void SharedFileStorage::remove(std::string_view name) const noexcept {
    if (!isContainerFileName(name)) {
        return;
    }
    try {
        const UniqueFd dir = openContainer();
        ::unlinkat(dir.get(), std::string(name).c_str(), 0);
    } catch (const SharedFileStorageError&) {
        // No container: nothing to remove.
    }
}

UniqueFd SharedFileStorage::openSourceFile(std::string_view name) const {
    requireName(name);
    const UniqueFd dir = openContainer();
    // O_NONBLOCK keeps a FIFO planted under the name from stalling the open; it means
    // nothing for the regular file that is accepted.
    UniqueFd fd(::openat(dir.get(), std::string(name).c_str(),
                         O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (fd.get() < 0) {
        fail(Case::ioFailed, errno);
    }
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0) {
        fail(Case::ioFailed, errno);
    }
    if (!S_ISREG(st.st_mode)) {
        fail(Case::ioFailed, S_ISDIR(st.st_mode) ? EISDIR : EINVAL);
    }
    return fd;
}

}  // namespace skiff::transfer
