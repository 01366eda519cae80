#pragma once
// The on-disk record of what the user wrote and the phone does not have yet: one small JSON
// file "<copyName>.pending" beside each local copy in the volume folder, written before a
// push and removed once the phone holds the bytes. skiff-fs reads them back when it starts
// (after a crash, an unmount or a reboot) and pushes them again.
//
// A record is replaced in one step (temporary file, rename), so a crash of skiff-fs leaves
// the old record or the new one. While a push runs that is enough: the push either lands or
// fails within a round trip, and three disk flushes per small file would cost more than the
// phone. A record kept because its push failed is saved durable (fsync of the file and the
// folder; the caller flushes the copy), so what waits for the phone survives a power loss. A record
// that does not decode is logged and renamed "<copyName>.pending.bad", never thrown on; its local
// copy is kept for the user.
//
// Threads: any; one mutex orders every change of the folder made through this object.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "common/bytes.hpp"
#include "common/json.hpp"
#include "volume/range_set.hpp"

namespace skiff::volume {

constexpr auto jsonFields(const ByteRange*) {
    return std::tuple{json::field("offset", &ByteRange::offset),
                      json::field("length", &ByteRange::length)};
}

struct PendingWrite {
    std::string identifier;  // the item's identifier when recorded
    std::optional<Bytes>
        baseVersion;               // the content version the writer started from; absent: new item
    std::uint64_t size = 0;        // the file's size as the user left it
    std::vector<ByteRange> dirty;  // ranges to send
    std::string copyName;          // the local copy's file name in the volume folder
    std::optional<std::uint32_t> mode;  // a mode set here and not yet on the phone

    friend bool operator==(const PendingWrite&, const PendingWrite&) = default;
};
constexpr auto jsonFields(const PendingWrite*) {
    using T = PendingWrite;
    using json::field;
    return std::tuple{field("identifier", &T::identifier),
                      field("baseVersion", &T::baseVersion),
                      field("size", &T::size),
                      field("dirty", &T::dirty),
                      field("copyName", &T::copyName),
                      field("mode", &T::mode)};
}

// The folder of the local copies and their records: "volume" in the shared container.
// Nothing when the environment names no home directory.
std::optional<std::filesystem::path> defaultVolumeFolder();

class PendingStore {
public:
    // Creates folder (mode 0700) when it is missing; a failure shows at the first save.
    explicit PendingStore(std::filesystem::path folder);
    PendingStore(const PendingStore&) = delete;
    PendingStore& operator=(const PendingStore&) = delete;

    const std::filesystem::path& folder() const { return folder_; }

    // Writes or replaces the record of write.copyName, flushed to the disk when `durable`;
    // false (logged) when it could not be written or the copy name is not a plain file name.
    bool save(const PendingWrite& write, bool durable);
    void remove(const std::string& copyName);
    // Every record that decodes, in no particular order.
    std::vector<PendingWrite> loadAll();
    // Removes the files of the folder that belong to no record (live or kept aside) and are
    // not named in inUse: local copies and half-written records left by a crash.
    void removeOrphans(const std::set<std::string>& inUse);
    // Records on disk.
    std::size_t count() const { return countIn(folder_); }
    // The same for a folder that may not exist, without creating it (for skiffctl).
    static std::size_t countIn(const std::filesystem::path& folder);

private:
    std::filesystem::path folder_;
    std::mutex mutex_;
};

}  // namespace skiff::volume
