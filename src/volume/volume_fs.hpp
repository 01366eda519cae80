#pragma once
// The volume's file system on libfuse's low-level interface: the kernel names nodes, not
// paths, so an unlinked open file stays reachable and a rename carries open handles along.
//
// - Look-ups, attributes and listings come from the phone and stay on their node for a
//   second; a listing answers with every entry's attributes (readdirplus), so `ls -l` is
//   one pass with no look-up per entry. A look-up in a small folder is answered from its
//   listing (FolderCache), taken for the purpose when there is none from the last second.
// - Round trips are what a user feels: a small push is one ordered relay, a sequential
//   writer's full chunks stream while it writes, reads are sized to the access (128 KiB
//   around a random one, a read-ahead doubling to 4 MiB for a sequential one).
// - A file's bytes live in one local copy per node (a sparse file in the volume folder),
//   shared by every handle: reads are served from it where it holds the range and fetched
//   from the phone otherwise; writes go only to it. A new file is a node at once.
// - Changes go to the phone on fsync, on the close of the last handle that wrote (which
//   waits and reports the outcome), and once a changed node is left alone for a while
//   (Pusher). A failed push keeps the bytes and is retried; its failure is reported by
//   every later fsync and close until the bytes are on the phone.
//
// Threads: libfuse's workers call every operation at once, the pusher runs on a thread of
// its own, read-ahead on two serial queues and streamed chunks on one. The node table's lock is
// held for map updates only; a node's `io` lock serialises its fetches and pushes, its `mutex`
// guards its state in short holds. No lock of the whole volume is held while anything waits for the
// phone.

#define FUSE_USE_VERSION 34
#include <fuse_lowlevel.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "common/serial_queue.hpp"
#include "transfer/shared_file_storage.hpp"
#include "volume/copy_budget.hpp"
#include "volume/folder_cache.hpp"
#include "volume/node_table.hpp"
#include "volume/pending_store.hpp"
#include "volume/phone_relay.hpp"

namespace skiff::volume {

class VolumeFs {
public:
    // Local copies nobody holds open take at most this much disk by default.
    static constexpr std::uint64_t kDefaultCopyLimit = std::uint64_t{2} << 30;

    // `copies` is the folder of the local copies (made when missing). The copies nobody
    // holds open and without changes of the user's take at most `copyLimit` bytes and half
    // the free space there; past that the least recently closed go.
    VolumeFs(PhoneRelay& phone, std::filesystem::path copies,
             std::uint64_t copyLimit = kDefaultCopyLimit);
    ~VolumeFs();
    VolumeFs(const VolumeFs&) = delete;
    VolumeFs& operator=(const VolumeFs&) = delete;

    // The operation table; each operation finds this object as the request's user data.
    static fuse_lowlevel_ops operations();

    // Takes back the writes a previous run left on disk (and removes local copies nobody
    // recorded), then starts pushing changed nodes in the background; `session` receives
    // the kernel notices (cached attributes and pages to drop).
    void start(fuse_session* session);
    // Once libfuse's loop has ended: stops the pusher and pushes what is still changed.
    void finish();
    // The service or the phone is back: push what waits now rather than at the next retry.
    void retryNow();

    // --- operations, each replying to its request --------------------------------------
    void lookup(fuse_req_t req, NodeId parent, const char* name);
    void forget(NodeId id, std::uint64_t count);
    void getattr(fuse_req_t req, NodeId id);
    void setattr(fuse_req_t req, NodeId id, const struct stat& attr, int toSet, fuse_file_info* fi);
    void mkdir(fuse_req_t req, NodeId parent, const char* name);
    void unlink(fuse_req_t req, NodeId parent, const char* name);
    void rename(fuse_req_t req, NodeId parent, const char* name, NodeId newParent,
                const char* newName, unsigned int flags);
    void open(fuse_req_t req, NodeId id, fuse_file_info* fi);
    void create(fuse_req_t req, NodeId parent, const char* name, mode_t mode, fuse_file_info* fi);
    void read(fuse_req_t req, std::size_t size, off_t offset, fuse_file_info* fi);
    void write(fuse_req_t req, const char* buffer, std::size_t size, off_t offset,
               fuse_file_info* fi);
    void flush(fuse_req_t req, fuse_file_info* fi);
    void release(fuse_req_t req, fuse_file_info* fi);
    void fsync(fuse_req_t req, fuse_file_info* fi);
    void opendir(fuse_req_t req, NodeId id, fuse_file_info* fi);
    void readdir(fuse_req_t req, std::size_t size, off_t offset, fuse_file_info* fi, bool plus);
    void releasedir(fuse_req_t req, fuse_file_info* fi);
    void statfs(fuse_req_t req);

private:
    struct Entry;
    // The node's attributes, refreshed from the phone when older than the cache time (or
    // always with `fresh`). An item gone from the phone unlinks its node: ENOENT.
    int refresh(const std::shared_ptr<Node>& node, relay::RelayLookupSource source, bool fresh);
    // The item at `identifier` as a node the kernel holds one more look-up of, for `req`.
    int entryOf(const std::string& identifier, relay::RelayLookupSource source, Entry& entry,
                fuse_req_t req);
    // What the folder's fresh listing says of the item; a folder not known to be large is
    // listed first when it has none.
    FolderCache::Found listed(const std::string& identifier);
    // The node's attributes from its folder's listing, when that is newer than the node's.
    bool fromListing(const std::shared_ptr<Node>& node);
    // The kernel's entry of the node, with its attributes. Takes Node::mutex.
    fuse_entry_param kernelEntry(Node& node);
    void replyEntry(fuse_req_t req, const std::shared_ptr<Node>& node);
    struct stat attributesOf(Node& node);
    // `ours`: the change is one this volume made (times, mode), not a replacement by the
    // phone, so open handles read on.
    void apply(Node& node, const RelayItemSummary& summary, bool ours = false);
    // Opens the node's local copy when it has none yet. Node::mutex held.
    int ensureCopy(Node& node);
    // Fetches what the copy lacks of [offset, offset + length), in whole read units. Node::io
    // held, but for read-ahead: a fetch only fills holes, and only at the version it started
    // at, so one that runs beside a push or another fetch does no harm.
    int fetch(Node& node, std::uint64_t offset, std::uint64_t length);
    // Fetches the range in the background.
    void prefetch(const std::shared_ptr<Node>& node, ByteRange range);
    // Sends the stream's full chunks in the background while its writer writes on.
    void streamChunks(const std::shared_ptr<Node>& node);
    // Cuts or extends the node's bytes. Node::mutex held.
    int cut(Node& node, std::uint64_t size);
    void markChanged(const std::shared_ptr<Node>& node);
    // Times and mode set on a node whose bytes are not on the phone yet stay here and go
    // with its push (one round trip for `cp -p`'s write, chmod and utimens). False when the
    // node has nothing to push. Node::io held.
    bool deferAttributes(Node& node, std::optional<relay::RelayTimespec> modify,
                         std::optional<relay::RelayTimespec> access,
                         std::optional<std::uint32_t> mode);
    // Sends the node's changes to the phone and waits for the outcome. Node::io held.
    int push(const std::shared_ptr<Node>& node);
    // Stages the item at `base` (a new item when absent), sends the dirty ranges (or every
    // byte when `everything`) and commits. Node::io held.
    int pushChanges(Node& node, const std::string& identifier, const std::optional<Bytes>& base,
                    std::uint64_t size, bool everything);
    // The phone's copy changed since the user's started: the user's bytes are kept beside
    // it (or in the recovered folder) and the node follows the phone again. Node::io held.
    int keepBoth(Node& node, const std::string& identifier);
    // Writes the node's pending record; `durable` flushes it and the local copy to disk.
    void record(Node& node, const std::string& identifier, bool durable);
    void resume(const PendingWrite& write);
    void dropCopy(Node& node);
    // Closes and deletes the node's local copy file. Node::mutex held.
    void removeCopy(Content& content);
    // The node's last handle closed: its copy waits for a reopen within the budget.
    void keepIdle(const std::shared_ptr<Node>& node);
    void evictIdle();
    void pushLoop();
    void invalidate(NodeId id);
    // Something inside the item's folder changed on the phone, and with it the folder's
    // times: what is kept of them here, and in the kernel, is asked for again (`rsync -a`
    // sets a folder's times once its files are in, if it sees them changed).
    void folderChanged(const std::string& identifier);
    // Whether the request comes from the service's process (any of its threads).
    bool fromService(fuse_req_t req) const;

    PhoneRelay& phone_;
    const std::filesystem::path copies_;
    const uid_t owner_;
    const gid_t group_;
    NodeTable nodes_;
    FolderCache folders_;
    PendingStore pending_;
    CopyBudget budget_;
    fuse_session* session_ = nullptr;

    std::mutex changedMutex_;  // guards the members below
    std::condition_variable wake_;
    std::set<std::shared_ptr<Node>> changed_;
    bool stopping_ = false;
    bool retry_ = false;
    std::thread pusher_;

    // Read-ahead fetches, two at a time so that the link is never idle between windows, and
    // streamed chunks. Last, so that they end before anything they use.
    std::atomic<bool> backgroundStopping_{false};
    std::atomic<std::size_t> nextPrefetcher_{0};
    std::array<std::unique_ptr<runtime::SerialQueue>, 2> prefetchers_{
        std::make_unique<runtime::SerialQueue>("skiff-fs.ahead-1"),
        std::make_unique<runtime::SerialQueue>("skiff-fs.ahead-2")};
    runtime::SerialQueue streamer_{"skiff-fs.stream"};
};

}  // namespace skiff::volume
