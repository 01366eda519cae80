#include "sim/app_storage.hpp"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>

#include <optional>
#include <vector>

#include "common/little_endian.hpp"

namespace skiff::sim {
namespace {

// The path's components; nullopt when one of them is "..", which could leave the root,
// or when it holds a NUL byte, which the system calls would cut the path at.
std::optional<std::vector<std::string>> componentsOf(const std::string& identifier) {
    if (identifier.find('\0') != std::string::npos) {
        return std::nullopt;
    }
    std::vector<std::string> parts;
    std::size_t start = 0;
    while (start <= identifier.size()) {
        const auto end = std::min(identifier.find('/', start), identifier.size());
        std::string part = identifier.substr(start, end - start);
        if (part == "..") {
            return std::nullopt;
        }
        if (!part.empty() && part != ".") {
            parts.push_back(std::move(part));
        }
        start = end + 1;
    }
    return parts;
}

relay::RelayTimespec timeOf(const struct statx_timestamp& t) {
    return {t.tv_sec, static_cast<std::int32_t>(t.tv_nsec)};
}

Bytes timeAndSize(const struct statx_timestamp& t, std::uint64_t size) {
    Bytes version;
    appendLittleEndian(version, static_cast<std::uint64_t>(t.tv_sec), 8);
    appendLittleEndian(version, t.tv_nsec, 4);
    appendLittleEndian(version, size, 8);
    return version;
}

}  // namespace

std::variant<StorageItem, relay::RelayDeviceStatus> locateItem(
    const std::filesystem::path& storageRoot, const std::string& identifier) {
    const auto parts = componentsOf(identifier);
    if (!parts) {
        return relay::RelayDeviceStatus::notFound;
    }
    UniqueFd dir(::open(storageRoot.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (dir.get() < 0) {
        return relay::RelayDeviceStatus::ioError;
    }
    std::string path;
    for (std::size_t i = 0; i + 1 < parts->size(); ++i) {
        UniqueFd next(::openat(dir.get(), (*parts)[i].c_str(),
                               O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (next.get() < 0) {
            return relay::RelayDeviceStatus::notFound;
        }
        dir = std::move(next);
        path += (*parts)[i] + "/";
    }
    std::string name = parts->empty() ? std::string() : parts->back();
    path += name;
    return StorageItem{std::move(dir), std::move(name), std::move(path)};
}

relay::RelayDeviceStatus statusOfError(int error) {
    using relay::RelayDeviceStatus;
    switch (error) {
        case ENOENT:
        case ENOTDIR:
            return RelayDeviceStatus::notFound;
        case EACCES:
        case EPERM:
        case EROFS:
            return RelayDeviceStatus::permissionDenied;
        case EEXIST:
        case ENOTEMPTY:
            return RelayDeviceStatus::alreadyExists;
        case EISDIR:
            return RelayDeviceStatus::isDirectory;
        case ELOOP:
        case EFBIG:
        case EINVAL:
        case ENAMETOOLONG:
            return RelayDeviceStatus::invalidArgument;
        case ENOSPC:
        case EDQUOT:
            return RelayDeviceStatus::noSpace;
        default:
            return RelayDeviceStatus::ioError;
    }
}

namespace {
constexpr unsigned kStatMask = STATX_BASIC_STATS | STATX_BTIME;
}  // namespace

bool statItem(const StorageItem& item, struct statx& st) {
    return item.name.empty() ? ::statx(item.folder.get(), "", AT_EMPTY_PATH, kStatMask, &st) == 0
                             : statEntry(item.folder.get(), item.name, st);
}

bool statEntry(int folder, const std::string& name, struct statx& st) {
    return ::statx(folder, name.c_str(), AT_SYMLINK_NOFOLLOW, kStatMask, &st) == 0;
}

Bytes contentVersionOf(const struct statx& st) {
    Bytes version = timeAndSize(st.stx_mtime, st.stx_size);
    appendLittleEndian(version, st.stx_ino, 8);
    return version;
}

relay::RelayItemSummary summaryOf(const struct statx& st, const std::string& identifier,
                                  const std::string& filename) {
    relay::RelayItemSummary s;
    s.identifier = identifier;
    s.filename = filename;
    s.isDirectory = S_ISDIR(st.stx_mode);
    s.inode = st.stx_ino;
    s.size = st.stx_size;
    s.allocSize = st.stx_blocks * 512;
    s.mode = st.stx_mode;
    s.uid = st.stx_uid;
    s.gid = st.stx_gid;
    s.flags = 0;
    s.linkCount = st.stx_nlink;
    s.accessTime = timeOf(st.stx_atime);
    s.modifyTime = timeOf(st.stx_mtime);
    s.changeTime = timeOf(st.stx_ctime);
    // Not every file system records a birth time.
    s.birthTime = (st.stx_mask & STATX_BTIME) != 0 ? timeOf(st.stx_btime) : s.changeTime;
    s.contentVersion = contentVersionOf(st);
    s.metadataVersion = timeAndSize(st.stx_ctime, st.stx_size);
    return s;
}

}  // namespace skiff::sim
