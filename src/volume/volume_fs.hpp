#pragma once
// The volume's file-system operations (libfuse's high-level, path-based interface): items
// are named by their path under the mount, which is the phone's identifier.
//
// - Look-ups, attributes and listings come from the phone and stay in an ItemCache for a
//   second; the kernel keeps entries and attributes as long, never a missing entry.
// - Reads go through the chunk cache in 4 MiB chunks, with the next chunk fetched in the
//   background when a handle reads sequentially.
// - A file opened for writing is staged whole in a shared-container file and pushed on
//   close (or fsync) against the content version it had at open; a phone-side change
//   meanwhile fails the close (kConflictErrno) and is never overwritten.
// - A time change is how the service pokes an item the phone changed: it refreshes the
//   item from the phone and drops the kernel's cached view of it. It never writes times
//   to the phone.
//
// Threads: libfuse's worker threads call every operation at once; shared state is behind
// the caches' locks and the open-file table's lock, and a handle's own lock serialises
// the calls on one handle. The read-ahead runs on a thread of its own so that no
// operation waits for it.

#define FUSE_USE_VERSION 31
#include <fuse.h>

#include <asio/thread_pool.hpp>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "transfer/shared_file_storage.hpp"
#include "volume/chunk_cache.hpp"
#include "volume/item_cache.hpp"
#include "volume/phone_relay.hpp"

namespace skiff::volume {

struct OpenFile;

class VolumeFs {
public:
    VolumeFs(PhoneRelay& phone, transfer::SharedFileStorage storage);
    ~VolumeFs();
    VolumeFs(const VolumeFs&) = delete;
    VolumeFs& operator=(const VolumeFs&) = delete;

    // Waits for the read-ahead in flight; call it once libfuse's loop has ended, while the
    // service can still answer.
    void finish();

    // The operation table; each operation finds this object as the context's private data.
    static fuse_operations operations();

    // The operations, each answering 0 or a negative errno as libfuse expects.
    int getattr(const std::string& id, struct stat* st, fuse_file_info* fi);
    int readdir(const std::string& id, void* buffer, fuse_fill_dir_t filler,
                fuse_readdir_flags flags);
    int open(const std::string& id, fuse_file_info* fi);
    int create(const std::string& id, fuse_file_info* fi);
    int read(OpenFile& file, char* buffer, std::size_t size, off_t offset);
    int write(OpenFile& file, const char* buffer, std::size_t size, off_t offset);
    // flush pushes what the handle holds (fsync); close does on each close of a descriptor,
    // once the handle has written.
    int flush(OpenFile& file);
    int close(OpenFile& file);
    void release(OpenFile* file);
    int truncate(const std::string& id, off_t size, fuse_file_info* fi);
    int remove(const std::string& id);
    int makeDirectory(const std::string& id);
    int rename(const std::string& from, const std::string& to, unsigned int flags);
    int touch(const std::string& id, const char* path);

private:
    // The item's summary: from the cache when fresh enough, else from the phone.
    Answer<RelayItemSummary> item(const std::string& id, relay::RelayLookupSource source,
                                  bool fresh);
    int stage(OpenFile& file, bool fillFromPhone);
    int push(OpenFile& file);
    void readAhead(const OpenFile& file, std::uint64_t index);
    void forget(const std::string& id);

    PhoneRelay& phone_;
    const transfer::SharedFileStorage storage_;
    ItemCache items_;
    ChunkCache chunks_;
    std::mutex openMutex_;
    // Handles open for writing, by item: their staged content is what the item is until
    // they are flushed (a new file exists only here until then).
    std::multimap<std::string, OpenFile*> writers_;
    asio::thread_pool background_{2};  // one thread per chunk read ahead
};

}  // namespace skiff::volume
