#pragma once

// Items of the folder that stands for the phone's storage, shared by the app's handlers.
// An identifier is a path relative to the folder ("" and "/" are the folder itself). It
// is resolved one folder at a time without following links, so that no identifier, and
// no link inside the storage, leads out of it.

#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <variant>

#include "common/bytes.hpp"
#include "common/unique_fd.hpp"
#include "relay/relay_schema.hpp"

namespace skiff::sim {

struct StorageItem {
    UniqueFd folder;   // holds the item; the storage folder itself for the root (O_PATH)
    std::string name;  // the item's name in folder; empty for the root
    std::string path;  // the identifier's components joined by "/": one spelling per item
};

// The item an identifier names, whether or not it exists; or the status to answer:
// notFound when the identifier holds ".." or a NUL byte, or a folder on the way is
// missing or is a link, and ioError when the storage folder cannot be opened.
std::variant<StorageItem, relay::RelayDeviceStatus> locateItem(
    const std::filesystem::path& storageRoot, const std::string& identifier);

// The item's own status (a link's, not its target's); false when it does not exist.
bool statItem(const StorageItem& item, struct statx& st);
// The same for the entry name of the directory open at folder.
bool statEntry(int folder, const std::string& name, struct statx& st);

// The status that answers a failed system call on the storage. A missing folder on the
// way (ENOTDIR) is notFound, as for locateItem; a link where the app will not follow one
// (ELOOP) is invalidArgument.
relay::RelayDeviceStatus statusOfError(int error);

// Changes whenever the content does: it covers the size, the modification time and the
// inode, so a file replaced by another differs even when both were written in the same
// clock tick. Clients only compare it.
Bytes contentVersionOf(const struct statx& st);

relay::RelayItemSummary summaryOf(const struct statx& st, const std::string& identifier,
                                  const std::string& filename);

}  // namespace skiff::sim
