#include "sim/app_lookup.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "common/unique_fd.hpp"
#include "relay/relay_schema.hpp"

namespace skiff::sim {
namespace {

using relay::RelayDeviceStatus;

tunnel::TunnelMessage failure(RelayDeviceStatus status) {
    return {static_cast<std::uint16_t>(status), {}};
}

// The path's components; nullopt when one of them is "..", which could leave the root.
std::optional<std::vector<std::string>> componentsOf(const std::string& identifier) {
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

void appendLittleEndian(Bytes& out, std::uint64_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) {
        out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
}

// Changes whenever the time or the size changes; clients only compare it.
Bytes versionOf(const struct statx_timestamp& t, std::uint64_t size) {
    Bytes version;
    appendLittleEndian(version, static_cast<std::uint64_t>(t.tv_sec), 8);
    appendLittleEndian(version, t.tv_nsec, 4);
    appendLittleEndian(version, size, 8);
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
    s.contentVersion = versionOf(st.stx_mtime, st.stx_size);
    s.metadataVersion = versionOf(st.stx_ctime, st.stx_size);
    return s;
}

}  // namespace

tunnel::TunnelMessage lookUpItem(const std::filesystem::path& storageRoot, const Bytes& body) {
    const auto request = json::decode<relay::RelayLookupRequest>(body);
    if (!request) {
        return failure(RelayDeviceStatus::invalidArgument);
    }
    const auto parts = componentsOf(request->identifier);
    if (!parts) {
        return failure(RelayDeviceStatus::notFound);
    }
    // Walk one directory at a time without following links, so that no link inside the
    // storage can lead out of it.
    UniqueFd dir(::open(storageRoot.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (dir.get() < 0) {
        return failure(RelayDeviceStatus::ioError);
    }
    for (std::size_t i = 0; i + 1 < parts->size(); ++i) {
        UniqueFd next(::openat(dir.get(), (*parts)[i].c_str(),
                               O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (next.get() < 0) {
            return failure(RelayDeviceStatus::notFound);
        }
        dir = std::move(next);
    }
    struct statx st {};
    const unsigned mask = STATX_BASIC_STATS | STATX_BTIME;
    const int rc = parts->empty()
                       ? ::statx(dir.get(), "", AT_EMPTY_PATH, mask, &st)
                       : ::statx(dir.get(), parts->back().c_str(), AT_SYMLINK_NOFOLLOW, mask, &st);
    if (rc != 0) {
        return failure(RelayDeviceStatus::notFound);
    }
    const std::string filename = parts->empty() ? std::string() : parts->back();
    auto answer = json::encode(summaryOf(st, request->identifier, filename));
    if (!answer) {
        // A name that is not UTF-8 has no JSON spelling.
        return failure(RelayDeviceStatus::ioError);
    }
    return {static_cast<std::uint16_t>(RelayDeviceStatus::ok), std::move(*answer)};
}

namespace {

// A plain function, so that the coroutine owns its arguments rather than a lambda's captures.
asio::awaitable<tunnel::TunnelMessage> answerLookup(std::filesystem::path root, Bytes body) {
    co_return lookUpItem(root, body);
}

}  // namespace

void installLookupHandler(AppHandlerTable& table, std::filesystem::path storageRoot) {
    table[kLookupRequestCode] = [root = std::move(storageRoot)](Bytes body) {
        return answerLookup(root, std::move(body));
    };
}

}  // namespace skiff::sim
