#include "sim/app_volume.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <variant>

#include "common/file_io.hpp"
#include "relay/item_requests.hpp"
#include "relay/volume_records.hpp"
#include "sim/app_storage.hpp"

namespace skiff::sim {
namespace {

using relay::RelayDeviceStatus;
using Selector = relay::UsbMuxRelaySelector;

tunnel::TunnelMessage failure(RelayDeviceStatus status) {
    return {static_cast<std::uint16_t>(status), {}};
}

template <class Record>
tunnel::TunnelMessage answerWith(const Record& record) {
    auto body = json::encode(record);
    if (!body) {
        // A name that is not UTF-8 has no JSON spelling.
        return failure(RelayDeviceStatus::ioError);
    }
    return {static_cast<std::uint16_t>(RelayDeviceStatus::ok), std::move(*body)};
}

std::variant<StorageItem, RelayDeviceStatus> locate(const std::filesystem::path& root,
                                                    const std::string& identifier) {
    if (!relay::isValidItemIdentifier(identifier)) {
        return RelayDeviceStatus::invalidArgument;
    }
    return locateItem(root, identifier);
}

// Outside this range the kernel reads tv_nsec as "now" or "leave it".
bool isTime(const relay::RelayTimespec& t) {
    return t.tvNsec >= 0 && t.tvNsec < 1'000'000'000;
}

struct timespec timeOrOmit(const std::optional<relay::RelayTimespec>& t) {
    return t ? timespec{static_cast<time_t>(t->tvSec), t->tvNsec} : timespec{0, UTIME_OMIT};
}

bool sameVersion(int file, const Bytes& version) {
    struct statx st {};
    return ::statx(file, "", AT_EMPTY_PATH, STATX_BASIC_STATS, &st) == 0 &&
           contentVersionOf(st) == version;
}

}  // namespace

tunnel::TunnelMessage setAttributes(const std::filesystem::path& storageRoot, const Bytes& body) {
    const auto request = json::decode<relay::RelaySetAttributesRequest>(body);
    if (!request || (request->mode && *request->mode > relay::kPermissionBits) ||
        (request->modifyTime && !isTime(*request->modifyTime)) ||
        (request->accessTime && !isTime(*request->accessTime))) {
        return failure(RelayDeviceStatus::invalidArgument);
    }
    auto located = locate(storageRoot, request->identifier);
    if (const auto* status = std::get_if<RelayDeviceStatus>(&located)) {
        return failure(*status);
    }
    const auto& item = std::get<StorageItem>(located);
    struct statx st {};
    if (!statItem(item, st)) {
        return failure(RelayDeviceStatus::notFound);
    }
    if (S_ISLNK(st.stx_mode)) {
        return failure(RelayDeviceStatus::invalidArgument);  // its target may lie outside
    }
    // The root is named by its folder's /proc link, an item by its name in its folder.
    const int folder = item.folder.get();
    const char* name = item.name.c_str();
    const std::string path = "/proc/self/fd/" + std::to_string(folder);
    if (request->modifyTime || request->accessTime) {
        const struct timespec times[2] = {timeOrOmit(request->accessTime),
                                          timeOrOmit(request->modifyTime)};
        const int done = item.name.empty() ? ::utimensat(AT_FDCWD, path.c_str(), times, 0)
                                           : ::utimensat(folder, name, times, AT_SYMLINK_NOFOLLOW);
        if (done != 0) {
            return failure(statusOfError(errno));
        }
    }
    if (request->mode) {
        const int done = item.name.empty() ? ::chmod(path.c_str(), *request->mode)
                                           : ::fchmodat(folder, name, *request->mode, 0);
        if (done != 0) {
            return failure(statusOfError(errno));
        }
    }
    if (!statItem(item, st)) {
        return failure(RelayDeviceStatus::notFound);
    }
    return answerWith(summaryOf(st, item.path, item.name));
}

tunnel::TunnelMessage readVersionRange(const std::filesystem::path& storageRoot,
                                       const Bytes& body) {
    const auto request = relay::decodeRangeReadRequest(body);
    if (!request) {
        return failure(RelayDeviceStatus::invalidArgument);
    }
    auto located = locate(storageRoot, request->identifier);
    if (const auto* status = std::get_if<RelayDeviceStatus>(&located)) {
        return failure(*status);
    }
    const auto& item = std::get<StorageItem>(located);
    if (item.name.empty()) {
        return failure(RelayDeviceStatus::isDirectory);
    }
    // O_NONBLOCK: a FIFO in the storage must not stall the app.
    const UniqueFd file(::openat(item.folder.get(), item.name.c_str(),
                                 O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st {};
    if (file.get() < 0 || ::fstat(file.get(), &st) != 0) {
        return failure(statusOfError(errno));
    }
    if (S_ISDIR(st.st_mode)) {
        return failure(RelayDeviceStatus::isDirectory);
    }
    if (!S_ISREG(st.st_mode)) {
        return failure(RelayDeviceStatus::invalidArgument);
    }
    if (!sameVersion(file.get(), request->version)) {
        return failure(RelayDeviceStatus::versionConflict);
    }
    const auto size = static_cast<std::uint64_t>(st.st_size);
    const std::uint64_t available = size - std::min(request->offset, size);
    Bytes bytes(static_cast<std::size_t>(std::min<std::uint64_t>(request->length, available)));
    const auto done = readUpTo(file.get(), bytes, request->offset);
    if (!done) {
        return failure(statusOfError(errno));
    }
    bytes.resize(*done);
    // Written meanwhile (by hand): the bytes may mix two versions.
    if (!sameVersion(file.get(), request->version)) {
        return failure(RelayDeviceStatus::versionConflict);
    }
    return {static_cast<std::uint16_t>(RelayDeviceStatus::ok), std::move(bytes)};
}

tunnel::TunnelMessage storageSpace(const std::filesystem::path& storageRoot, const Bytes& body) {
    if (!json::decode<relay::RelaySpaceRequest>(body)) {
        return failure(RelayDeviceStatus::invalidArgument);
    }
    struct statvfs fs {};
    if (::statvfs(storageRoot.c_str(), &fs) != 0) {
        return failure(statusOfError(errno));
    }
    const std::uint64_t unit = fs.f_frsize;
    return answerWith(relay::RelaySpaceReply{fs.f_blocks * unit, fs.f_bavail * unit});
}

void installVolumeHandlers(AppHandlerTable& table, std::filesystem::path storageRoot) {
    const std::pair<Selector, StorageRequest> requests[] = {
        {Selector::setAttributes, &setAttributes},
        {Selector::readVersionRange, &readVersionRange},
        {Selector::storageSpace, &storageSpace},
    };
    installStorageHandlers(table, storageRoot, requests);
}

}  // namespace skiff::sim
