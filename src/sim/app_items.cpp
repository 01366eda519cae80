#include "sim/app_items.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "common/base64.hpp"
#include "relay/item_requests.hpp"
#include "relay/relay_schema.hpp"
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

// The summary of the item as it is now; notFound when it went away meanwhile.
tunnel::TunnelMessage answerSummary(const StorageItem& item) {
    struct statx st {};
    if (!statItem(item, st)) {
        return failure(RelayDeviceStatus::notFound);
    }
    return answerWith(summaryOf(st, item.path, item.name));
}

// Every item request starts the same way: the record must decode and the item it names
// must be found; otherwise it is refused before `handle` sees it.
template <class Request, class Handle>
tunnel::TunnelMessage withItem(const std::filesystem::path& root, const Bytes& body,
                               Handle handle) {
    const auto request = json::decode<Request>(body);
    if (!request) {
        return failure(RelayDeviceStatus::invalidArgument);
    }
    auto located = locate(root, request->identifier);
    if (const auto* status = std::get_if<RelayDeviceStatus>(&located)) {
        return failure(*status);
    }
    return handle(*request, std::get<StorageItem>(located));
}

struct DirCloser {
    void operator()(DIR* dir) const { ::closedir(dir); }
};
using DirStream = std::unique_ptr<DIR, DirCloser>;

// The entry names of the directory open (O_PATH) at folder, in byte order; errno set
// when it cannot be read.
std::optional<std::vector<std::string>> namesIn(int folder) {
    const int fd = ::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return std::nullopt;
    }
    const DirStream dir(::fdopendir(fd));
    if (!dir) {
        ::close(fd);
        return std::nullopt;
    }
    std::vector<std::string> names;
    errno = 0;
    while (const dirent* entry = ::readdir(dir.get())) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") {
            names.emplace_back(name);
        }
    }
    if (errno != 0) {
        return std::nullopt;
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool hasJsonSpelling(const std::string& name) {
    return json::serialize(json::Json(name)).has_value();
}

}  // namespace

tunnel::TunnelMessage listDirectory(const std::filesystem::path& storageRoot, const Bytes& body) {
    const auto request = json::decode<relay::RelayListRequest>(body);
    if (!request) {
        return failure(RelayDeviceStatus::invalidArgument);
    }
    // The cursor is the last name handed out, in Base64 so that clients take it as it is.
    std::string after;
    if (request->cursor) {
        const auto decoded = base64::decode(*request->cursor);
        if (!decoded || decoded->empty()) {
            return failure(RelayDeviceStatus::invalidArgument);
        }
        after.assign(decoded->begin(), decoded->end());
    }
    auto located = locate(storageRoot, request->identifier);
    if (const auto* status = std::get_if<RelayDeviceStatus>(&located)) {
        return failure(*status);
    }
    const auto& folder = std::get<StorageItem>(located);
    struct statx st {};
    if (!statItem(folder, st)) {
        return failure(RelayDeviceStatus::notFound);
    }
    if (!S_ISDIR(st.stx_mode)) {
        return failure(RelayDeviceStatus::notDirectory);  // a link to one included
    }
    const UniqueFd dir(folder.name.empty()
                           ? ::dup(folder.folder.get())
                           : ::openat(folder.folder.get(), folder.name.c_str(),
                                      O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    const auto names = dir.get() < 0 ? std::nullopt : namesIn(dir.get());
    if (!names) {
        return failure(statusOfError(errno));
    }
    auto next =
        request->cursor ? std::upper_bound(names->begin(), names->end(), after) : names->begin();
    relay::RelayListReply reply;
    const std::string prefix = folder.path.empty() ? "" : folder.path + "/";
    for (; next != names->end() && reply.items.size() < relay::kListPageLimit; ++next) {
        // An entry gone since the read, or one a client could not name, is left out.
        if (hasJsonSpelling(*next) && statEntry(dir.get(), *next, st)) {
            reply.items.push_back(summaryOf(st, prefix + *next, *next));
        }
    }
    if (next != names->end()) {
        const auto& last = *std::prev(next);
        reply.nextCursor = base64::encode(Bytes(last.begin(), last.end()));
    }
    return answerWith(reply);
}

tunnel::TunnelMessage removeItem(const std::filesystem::path& storageRoot, const Bytes& body) {
    return withItem<relay::RelayItemRequest>(
        storageRoot, body, [](const auto&, const StorageItem& item) {
            if (item.name.empty()) {
                return failure(RelayDeviceStatus::invalidArgument);  // the storage itself stays
            }
            struct statx st {};
            if (!statItem(item, st)) {
                return failure(RelayDeviceStatus::notFound);
            }
            const int flags = S_ISDIR(st.stx_mode) ? AT_REMOVEDIR : 0;
            if (::unlinkat(item.folder.get(), item.name.c_str(), flags) != 0) {
                return failure(statusOfError(errno));
            }
            return tunnel::TunnelMessage{static_cast<std::uint16_t>(RelayDeviceStatus::ok), {}};
        });
}

tunnel::TunnelMessage makeDirectory(const std::filesystem::path& storageRoot, const Bytes& body) {
    return withItem<relay::RelayItemRequest>(
        storageRoot, body, [](const auto&, const StorageItem& item) {
            if (item.name.empty()) {
                return failure(RelayDeviceStatus::alreadyExists);
            }
            if (::mkdirat(item.folder.get(), item.name.c_str(), 0755) != 0) {
                return failure(statusOfError(errno));
            }
            return answerSummary(item);
        });
}

tunnel::TunnelMessage renameItem(const std::filesystem::path& storageRoot, const Bytes& body) {
    return withItem<relay::RelayRenameRequest>(
        storageRoot, body, [&](const auto& request, const StorageItem& source) {
            auto to = locate(storageRoot, request.newIdentifier);
            if (const auto* status = std::get_if<RelayDeviceStatus>(&to)) {
                return failure(*status);
            }
            const auto& target = std::get<StorageItem>(to);
            if (source.name.empty() || target.name.empty()) {
                return failure(RelayDeviceStatus::invalidArgument);
            }
            struct statx st {};
            if (!statItem(source, st)) {
                return failure(RelayDeviceStatus::notFound);
            }
            const bool sourceIsDirectory = S_ISDIR(st.stx_mode);
            // The system's words for a kind mismatch depend on which side is the directory; the
            // answer names what the target is.
            if (statItem(target, st) && S_ISDIR(st.stx_mode) != sourceIsDirectory) {
                return failure(sourceIsDirectory ? RelayDeviceStatus::notDirectory
                                                 : RelayDeviceStatus::isDirectory);
            }
            if (::renameat(source.folder.get(), source.name.c_str(), target.folder.get(),
                           target.name.c_str()) != 0) {
                return failure(statusOfError(errno));
            }
            return answerSummary(target);
        });
}

void installItemHandlers(AppHandlerTable& table, std::filesystem::path storageRoot) {
    const std::pair<Selector, StorageRequest> requests[] = {
        {Selector::listDirectory, &listDirectory},
        {Selector::removeItem, &removeItem},
        {Selector::makeDirectory, &makeDirectory},
        {Selector::renameItem, &renameItem},
    };
    installStorageHandlers(table, storageRoot, requests);
}

}  // namespace skiff::sim
