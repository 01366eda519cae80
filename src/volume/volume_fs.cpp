#include "volume/volume_fs.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "common/log.hpp"
#include "common/uuid.hpp"
#include "transfer/file_io_records.hpp"
#include "volume/conflict_name.hpp"

namespace skiff::volume {

using relay::RelayLookupSource;
using transfer::kChunkSize;
using Clock = std::chrono::steady_clock;

namespace {

// FUSE names the calling thread; its process is the thread group the kernel lists for it.
pid_t processOfThread(pid_t thread) {
    std::ifstream status("/proc/" + std::to_string(thread) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.starts_with("Tgid:")) {
            return static_cast<pid_t>(std::atol(line.c_str() + 5));
        }
    }
    return 0;
}

constexpr auto kCacheLifetime = std::chrono::seconds(1);
constexpr double kKernelCacheSeconds = 1.0;
// A changed node left alone this long goes to the phone.
constexpr auto kQuietBeforePush = std::chrono::seconds(2);
constexpr auto kPusherTick = std::chrono::milliseconds(250);
constexpr auto kFirstRetry = std::chrono::seconds(2);
constexpr auto kLastRetry = std::chrono::seconds(4);
constexpr std::size_t kNameMax = 255;
// A random read fetches its range rounded out to this; a sequential reader's read-ahead
// grows from it to a whole chunk.
constexpr std::uint64_t kReadUnit = 128 * 1024;

// One open file.
struct Handle {
    std::shared_ptr<Node> node;
    bool writable = false;
    std::uint64_t replacements = 0;  // the node's when opened: a later one fails its reads
    // By this handle's writes or cuts since its last close. Guarded by the node's mutex,
    // which keeps Content::unclosedWriters in step with it.
    bool written = false;
    // The read-ahead, guarded by the node's mutex: where a sequential read would start, the
    // window that doubles while reads stay sequential, how far fetches were asked for, and
    // the offset whose reading asks for the next window.
    std::uint64_t next = 0;
    std::uint64_t window = 0;
    std::uint64_t ahead = 0;
    std::uint64_t marker = 0;

    void wrote(Content& content) {
        if (!std::exchange(written, true)) {
            ++content.unclosedWriters;
        }
    }
    // Whether this handle was the last of its node with writes its close has not seen.
    bool closed(Content& content) {
        return std::exchange(written, false) && --content.unclosedWriters == 0;
    }
};

// One open directory: its entries as listed at open, so that the kernel's pages of one
// listing agree with each other.
struct Listing {
    std::vector<RelayItemSummary> items;
    std::chrono::steady_clock::time_point asked;  // older than a push it must not undo
};

// Sizes a read's fetch (`needed`: the read rounded out to read units, or the reader's window
// when it reads on sequentially past what was asked for) and says what to fetch ahead of it,
// if anything. The node's mutex held.
std::optional<ByteRange> readAhead(Handle& handle, std::uint64_t start, std::uint64_t size,
                                   std::uint64_t fileSize, bool complete, ByteRange& needed) {
    const bool sequential = start == handle.next;
    handle.next = start + size;
    if (!sequential) {
        handle.window = handle.ahead = 0;
        handle.marker = UINT64_MAX;
    }
    const auto roundDown = [](std::uint64_t at) { return at / kReadUnit * kReadUnit; };
    needed.offset = roundDown(start);
    needed.length = roundDown(start + size + kReadUnit - 1) - needed.offset;
    if (!complete && sequential && start >= handle.ahead) {
        // Past what was asked for: this read fetches a window, and the next one goes at once.
        handle.window = std::clamp<std::uint64_t>(handle.window * 2, kReadUnit, kChunkSize);
        needed.length = std::max(needed.length, handle.window);
        handle.ahead = needed.offset + needed.length;
        handle.marker = start;
    }
    if (!sequential || handle.window == 0 || start + size <= handle.marker ||
        handle.ahead >= fileSize) {
        return std::nullopt;
    }
    // The reader entered the last window asked for: the one after it goes now, so the link
    // is busy while the reader reads.
    handle.window = std::min<std::uint64_t>(handle.window * 2, kChunkSize);
    const ByteRange next{handle.ahead, handle.window};
    handle.marker = handle.ahead;
    handle.ahead += handle.window;
    return next;
}

Handle& handleOf(fuse_file_info* fi) {
    return *reinterpret_cast<Handle*>(fi->fh);
}

timespec timeOf(const relay::RelayTimespec& t) {
    return {static_cast<time_t>(t.tvSec), static_cast<long>(t.tvNsec)};
}

relay::RelayTimespec relayNow() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return {static_cast<std::int64_t>(now.tv_sec), static_cast<std::int32_t>(now.tv_nsec)};
}

bool nameTooLong(const char* name) {
    return std::strlen(name) > kNameMax;
}

// Where the user hears of what happened to their files: the log and the service's notice.
void tellUser(PhoneRelay& phone, const std::string& text) {
    log::xpc().warning("skiff-fs: %{public}s", text.c_str());
    phone.notice(text);
}

}  // namespace

struct VolumeFs::Entry {
    std::shared_ptr<Node> node;
};

VolumeFs::VolumeFs(PhoneRelay& phone, std::filesystem::path copies, std::uint64_t copyLimit)
    : phone_(phone),
      copies_(std::move(copies)),
      owner_(::getuid()),
      group_(::getgid()),
      folders_(kCacheLifetime),
      pending_(copies_),
      budget_([this, copyLimit] {
          struct statvfs space {};
          if (::statvfs(copies_.c_str(), &space) != 0) {
              return copyLimit;
          }
          return std::min<std::uint64_t>(copyLimit, space.f_bavail * space.f_frsize / 2);
      }) {
    std::error_code error;
    std::filesystem::create_directories(copies_, error);
    std::filesystem::permissions(copies_, std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::replace, error);
    auto root = nodes_.get(kRootNode);
    root->attributes.isDirectory = true;
    root->attributes.mode = 0755;
}

VolumeFs::~VolumeFs() {
    finish();
}

void VolumeFs::start(fuse_session* session) {
    session_ = session;
    const auto left = pending_.loadAll();
    std::set<std::string> kept;
    for (const auto& write : left) {
        kept.insert(write.copyName);
    }
    pending_.removeOrphans(kept);
    for (const auto& write : left) {
        resume(write);
    }
    if (!left.empty()) {
        log::xpc().info("skiff-fs has %{public}zu files to send to the phone", left.size());
    }
    pusher_ = std::thread([this] { pushLoop(); });
}

void VolumeFs::resume(const PendingWrite& write) {
    UniqueFd fd(::open((copies_ / write.copyName).c_str(), O_RDWR | O_CLOEXEC));
    if (fd.get() < 0) {
        log::xpc().error("skiff-fs lost the local copy of %{public}s", write.identifier.c_str());
        pending_.remove(write.copyName);
        return;
    }
    const auto node = nodes_.learn(write.identifier, false, 0);
    {
        std::lock_guard guard(node->mutex);
        auto& content = node->content;
        content.fd = std::move(fd);
        content.copyName = write.copyName;
        content.present = {};
        content.dirty = {};
        for (const auto& range : write.dirty) {
            content.present.add(range.offset, range.length);
            content.dirty.add(range.offset, range.length);
        }
        content.size = write.size;
        content.version = write.baseVersion;
        content.onPhone = write.baseVersion.has_value();
        content.changed = true;
        node->attributes.identifier = write.identifier;
        node->attributes.filename = nameOf(write.identifier);
        node->attributes.mode = write.mode.value_or(0);
        content.modePending = write.mode && content.onPhone;
    }
    markChanged(node);
}

void VolumeFs::record(Node& node, const std::string& identifier, bool durable) {
    PendingWrite write;
    {
        std::lock_guard guard(node.mutex);
        const auto& content = node.content;
        if (durable && content.fd.get() >= 0) {
            ::fsync(content.fd.get());  // the record is worth no more than the bytes it names
        }
        write.identifier = identifier;
        write.baseVersion = content.onPhone ? content.version : std::nullopt;
        write.size = content.size;
        write.dirty = content.dirty.ranges();
        write.copyName = content.copyName;
        if (!content.onPhone || content.modePending) {
            write.mode = node.attributes.mode & 07777;
        }
    }
    pending_.save(write, durable);
}

void VolumeFs::finish() {
    backgroundStopping_ = true;
    {
        std::lock_guard guard(changedMutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (pusher_.joinable()) {
        pusher_.join();
    }
    std::set<std::shared_ptr<Node>> left;
    {
        std::lock_guard guard(changedMutex_);
        left.swap(changed_);
    }
    for (const auto& node : left) {
        std::lock_guard io(node->io);
        push(node);
    }
}

void VolumeFs::retryNow() {
    {
        std::lock_guard guard(changedMutex_);
        retry_ = true;
    }
    wake_.notify_all();
}

// --- attributes and look-ups --------------------------------------------------------

void VolumeFs::apply(Node& node, const RelayItemSummary& summary, bool ours) {
    node.attributes = summary;
    node.fetched = Clock::now();
    auto& content = node.content;
    content.onPhone = true;
    if (content.changed) {
        return;  // the user's bytes are what the file is until they reach the phone
    }
    if (content.version != summary.contentVersion) {
        // Bytes of another version must never be served for this one, nor to a handle
        // that read the one before.
        content.replacements += content.version && !ours ? 1 : 0;
        content.present = {};
        content.version = summary.contentVersion;
    }
    if (content.size != summary.size && content.fd.get() >= 0) {
        content.present.truncate(summary.size);
        [[maybe_unused]] const int cut =
            ::ftruncate(content.fd.get(), static_cast<off_t>(summary.size));
    }
    content.size = summary.size;
}

struct stat VolumeFs::attributesOf(Node& node) {
    struct stat st {};
    const auto& item = node.attributes;
    const mode_t permissions = item.mode & 07777;
    st.st_ino = node.id;
    st.st_mode = node.isDirectory ? S_IFDIR | (permissions ? permissions : 0755)
                                  : S_IFREG | (permissions ? permissions : 0644);
    st.st_nlink = item.linkCount ? item.linkCount : (node.isDirectory ? 2 : 1);
    // The phone's owners mean nothing here: the items belong to whoever mounted them.
    st.st_uid = owner_;
    st.st_gid = group_;
    st.st_size = static_cast<off_t>(node.isDirectory ? item.size : node.content.size);
    st.st_blocks = static_cast<blkcnt_t>((std::max(item.allocSize, node.content.size) + 511) / 512);
    st.st_blksize = 4096;
    st.st_atim = timeOf(item.accessTime);
    st.st_mtim = timeOf(item.modifyTime);
    st.st_ctim = timeOf(item.changeTime);
    return st;
}

int VolumeFs::refresh(const std::shared_ptr<Node>& node, RelayLookupSource source, bool fresh) {
    {
        std::lock_guard guard(node->mutex);
        const bool local = node->content.changed;
        if (node->id == kRootNode && node->fetched == Clock::time_point{} && !fresh) {
            // The root answers before the phone does: the mount point stays reachable.
        } else if ((local && !node->isDirectory) ||
                   (!fresh && Clock::now() - node->fetched < kCacheLifetime)) {
            return 0;
        }
    }
    if (nodes_.unlinked(*node)) {
        return 0;
    }
    if (!fresh && node->id != kRootNode && fromListing(node)) {
        return 0;
    }
    // After any push in flight: an answer the phone gave before it must not undo it.
    std::lock_guard io(node->io);
    const auto identifier = nodes_.identifierOf(*node);
    const auto answer = phone_.lookup(identifier, source);
    if (answer.error == ENOENT && node->id != kRootNode) {
        folders_.erase(identifier);
        std::lock_guard guard(node->mutex);
        if (!node->content.changed) {
            nodes_.unlink(identifier);
        }
        return node->content.changed ? 0 : ENOENT;
    }
    if (answer.error != 0) {
        return node->id == kRootNode ? 0 : answer.error;
    }
    if (answer.value.isDirectory != node->isDirectory) {
        nodes_.unlink(identifier);
        return ENOENT;
    }
    std::lock_guard guard(node->mutex);
    apply(*node, answer.value);
    return 0;
}

int VolumeFs::entryOf(const std::string& identifier, RelayLookupSource source, Entry& entry,
                      fuse_req_t req) {
    if (auto known = nodes_.find(identifier)) {
        if (const int error = refresh(known, source, false); error == 0) {
            entry.node = nodes_.learn(identifier, known->isDirectory, 1);
            return 0;
        } else if (error != ENOENT) {
            return error;
        }
    }
    const auto found = listed(identifier);
    // The service looks up an item the phone has just told it of: the listing may predate it.
    if (found.known == FolderCache::Known::absent && !fromService(req)) {
        return ENOENT;
    }
    if (found.known == FolderCache::Known::present) {
        entry.node = nodes_.learn(identifier, found.item.isDirectory, 1);
        std::lock_guard guard(entry.node->mutex);
        if (!entry.node->content.changed) {
            apply(*entry.node, found.item);
            entry.node->fetched = found.asked;
        }
        return 0;
    }
    const auto answer = phone_.lookup(identifier, source);
    if (answer.error != 0) {
        return answer.error;
    }
    folders_.put(answer.value);
    entry.node = nodes_.learn(identifier, answer.value.isDirectory, 1);
    std::lock_guard guard(entry.node->mutex);
    apply(*entry.node, answer.value);
    return 0;
}

FolderCache::Found VolumeFs::listed(const std::string& identifier) {
    auto found = folders_.find(identifier);
    const auto folder = parentOf(identifier);
    if (found.known == FolderCache::Known::unknown && folders_.worthListing(folder)) {
        // One round trip either way; the listing answers the next names in the folder too.
        const auto asked = Clock::now();
        auto answer = phone_.list(folder, true);
        if (answer.error == EFBIG) {
            folders_.markLarge(folder);
        } else if (answer.error == 0) {
            folders_.store(folder, asked, answer.value);
            found = folders_.find(identifier);
        }
    }
    return found;
}

bool VolumeFs::fromListing(const std::shared_ptr<Node>& node) {
    const auto found = listed(nodes_.identifierOf(*node));
    if (found.known != FolderCache::Known::present || found.item.isDirectory != node->isDirectory) {
        return false;  // gone, perhaps: the phone says for sure
    }
    std::lock_guard guard(node->mutex);
    // A listing asked before this node's last push or fetch knows less than the node.
    if (node->content.changed || found.asked <= node->content.lastPush ||
        found.asked <= node->fetched) {
        return false;
    }
    apply(*node, found.item);
    node->fetched = found.asked;
    return true;
}

fuse_entry_param VolumeFs::kernelEntry(Node& node) {
    fuse_entry_param e{};
    e.ino = node.id;
    e.generation = 1;
    {
        std::lock_guard guard(node.mutex);
        e.attr = attributesOf(node);
    }
    e.attr_timeout = kKernelCacheSeconds;
    e.entry_timeout = kKernelCacheSeconds;
    return e;
}

void VolumeFs::replyEntry(fuse_req_t req, const std::shared_ptr<Node>& node) {
    const fuse_entry_param e = kernelEntry(*node);
    if (fuse_reply_entry(req, &e) != 0) {
        forget(node->id, 1);
    }
}

void VolumeFs::lookup(fuse_req_t req, NodeId parent, const char* name) {
    if (nameTooLong(name)) {
        fuse_reply_err(req, ENAMETOOLONG);
        return;
    }
    const auto directory = nodes_.get(parent);
    if (!directory) {
        fuse_reply_err(req, ENOENT);
        return;
    }
    Entry entry;
    const auto identifier = childOf(nodes_.identifierOf(*directory), name);
    if (const int error = entryOf(identifier, RelayLookupSource::fsLookupByName, entry, req);
        error != 0) {
        fuse_reply_err(req, error);
        return;
    }
    replyEntry(req, entry.node);
}

void VolumeFs::forget(NodeId id, std::uint64_t count) {
    nodes_.forget(id, count);
}

void VolumeFs::getattr(fuse_req_t req, NodeId id) {
    const auto node = nodes_.get(id);
    if (!node) {
        fuse_reply_err(req, ENOENT);
        return;
    }
    if (nodes_.unlinked(*node) && nodes_.opens(*node) == 0) {
        fuse_reply_err(req, ENOENT);
        return;
    }
    if (const int error = refresh(node, RelayLookupSource::fsGetAttributes, false); error != 0) {
        fuse_reply_err(req, error);
        return;
    }
    std::lock_guard guard(node->mutex);
    auto st = attributesOf(*node);
    if (nodes_.unlinked(*node)) {
        st.st_nlink = 0;
    }
    fuse_reply_attr(req, &st, kKernelCacheSeconds);
}

void VolumeFs::invalidate(NodeId id) {
    if (session_) {
        fuse_lowlevel_notify_inval_inode(session_, id, 0, 0);
    }
}

void VolumeFs::folderChanged(const std::string& identifier) {
    const auto folder = parentOf(identifier);
    const auto node = nodes_.find(folder);
    if (!node || node->id == kRootNode) {
        return;
    }
    {
        std::lock_guard guard(node->mutex);
        node->fetched = {};
    }
    folders_.drop(parentOf(folder));
    if (session_) {
        fuse_lowlevel_notify_inval_inode(session_, node->id, -1, 0);  // attributes only
    }
}

bool VolumeFs::fromService(fuse_req_t req) const {
    const pid_t service = phone_.serviceProcess();
    const pid_t caller = fuse_req_ctx(req)->pid;
    return service != 0 && (caller == service || processOfThread(caller) == service);
}

void VolumeFs::setattr(fuse_req_t req, NodeId id, const struct stat& attr, int toSet,
                       fuse_file_info* fi) {
    const auto node = nodes_.get(id);
    if (!node) {
        fuse_reply_err(req, ENOENT);
        return;
    }
    if (toSet & FUSE_SET_ATTR_SIZE) {
        if (node->isDirectory) {
            fuse_reply_err(req, EISDIR);
            return;
        }
        if (attr.st_size < 0) {
            fuse_reply_err(req, EINVAL);
            return;
        }
        std::lock_guard io(node->io);
        int error = 0;
        bool pushNow = false;
        {
            std::lock_guard guard(node->mutex);
            error = cut(*node, static_cast<std::uint64_t>(attr.st_size));
            if (fi) {
                handleOf(fi).wrote(node->content);
            }
            // A cut by path with no writer open has nobody to push it later.
            pushNow = !fi && node->content.writers == 0;
        }
        if (error == 0) {
            markChanged(node);
            if (pushNow) {
                error = push(node);
            }
        }
        if (error != 0) {
            fuse_reply_err(req, error);
            return;
        }
    }
    // Items belong to whoever mounted the volume; they can be given to nobody else.
    if (((toSet & FUSE_SET_ATTR_UID) && attr.st_uid != owner_) ||
        ((toSet & FUSE_SET_ATTR_GID) && attr.st_gid != group_)) {
        fuse_reply_err(req, EPERM);
        return;
    }
    const int times = toSet & (FUSE_SET_ATTR_ATIME | FUSE_SET_ATTR_MTIME);
    if (times && fromService(req)) {
        // The service touches an item the phone changed: refresh it and drop what the
        // kernel holds of it. A node holding the user's changes keeps them.
        const int error = refresh(node, RelayLookupSource::fsSetAttributesRefresh, true);
        invalidate(id);
        if (error != 0) {
            fuse_reply_err(req, error);
            return;
        }
    } else if (times || (toSet & FUSE_SET_ATTR_MODE)) {
        const auto stamp = [](const timespec& t) {
            return relay::RelayTimespec{static_cast<std::int64_t>(t.tv_sec),
                                        static_cast<std::int32_t>(t.tv_nsec)};
        };
        std::optional<relay::RelayTimespec> modify;
        std::optional<relay::RelayTimespec> access;
        std::optional<std::uint32_t> mode;
        if (toSet & FUSE_SET_ATTR_MTIME) {
            modify = (toSet & FUSE_SET_ATTR_MTIME_NOW) ? relayNow() : stamp(attr.st_mtim);
        }
        if (toSet & FUSE_SET_ATTR_ATIME) {
            access = (toSet & FUSE_SET_ATTR_ATIME_NOW) ? relayNow() : stamp(attr.st_atim);
        }
        if (toSet & FUSE_SET_ATTR_MODE) {
            mode = attr.st_mode & 07777;
        }
        std::lock_guard io(node->io);
        if (deferAttributes(*node, modify, access, mode)) {
            std::lock_guard guard(node->mutex);
            const auto st = attributesOf(*node);
            fuse_reply_attr(req, &st, kKernelCacheSeconds);
            return;
        }
        // The phone sets attributes of what it holds: the user's bytes go first.
        if (const int error = push(node); error != 0) {
            fuse_reply_err(req, error);
            return;
        }
        const auto identifier = nodes_.identifierOf(*node);
        const auto answer = phone_.setAttributes(identifier, modify, access, mode);
        std::lock_guard guard(node->mutex);
        if (answer.error == 0) {
            apply(*node, answer.value, true);
        } else {
            // Copying tools stop at a failed time or mode; the file itself is on the phone.
            log::xpc().error("skiff-fs could not set the times or mode of %{public}s: %{public}s",
                             identifier.c_str(), std::strerror(answer.error));
            node->attributes.modifyTime = modify.value_or(node->attributes.modifyTime);
            node->attributes.accessTime = access.value_or(node->attributes.accessTime);
            node->attributes.mode = mode.value_or(node->attributes.mode);
        }
    }
    std::lock_guard guard(node->mutex);
    const auto st = attributesOf(*node);
    fuse_reply_attr(req, &st, kKernelCacheSeconds);
}

bool VolumeFs::deferAttributes(Node& node, std::optional<relay::RelayTimespec> modify,
                               std::optional<relay::RelayTimespec> access,
                               std::optional<std::uint32_t> mode) {
    std::lock_guard guard(node.mutex);
    auto& content = node.content;
    if (!content.changed) {
        return false;
    }
    node.attributes.modifyTime = modify.value_or(node.attributes.modifyTime);
    node.attributes.accessTime = access.value_or(node.attributes.accessTime);
    node.attributes.mode = mode.value_or(node.attributes.mode);
    content.timesPending = content.timesPending || modify || access;
    content.modePending = content.modePending || mode;
    return true;
}

// --- the tree ----------------------------------------------------------------------

void VolumeFs::mkdir(fuse_req_t req, NodeId parent, const char* name) {
    const auto directory = nodes_.get(parent);
    if (nameTooLong(name) || !directory) {
        fuse_reply_err(req, directory ? ENAMETOOLONG : ENOENT);
        return;
    }
    const auto identifier = childOf(nodes_.identifierOf(*directory), name);
    const auto answer = phone_.makeDirectory(identifier);
    if (answer.error != 0) {
        fuse_reply_err(req, answer.error);
        return;
    }
    const auto node = nodes_.learn(identifier, true, 1);
    {
        std::lock_guard guard(node->mutex);
        apply(*node, answer.value);
    }
    folders_.put(answer.value);
    folders_.store(identifier, Clock::now(), {});  // made just now, so empty
    folderChanged(identifier);
    replyEntry(req, node);
}

void VolumeFs::unlink(fuse_req_t req, NodeId parent, const char* name) {
    const auto folder = nodes_.get(parent);
    if (!folder) {
        fuse_reply_err(req, ENOENT);
        return;
    }
    const auto identifier = childOf(nodes_.identifierOf(*folder), name);
    const auto node = nodes_.find(identifier);
    // A folder holding a file the phone does not have yet (made, and its push still to come)
    // is not empty, whatever the phone says.
    if (node && node->isDirectory) {
        for (const auto& child : nodes_.children(identifier)) {
            std::lock_guard guard(child->mutex);
            if (!child->content.onPhone && child->content.changed) {
                fuse_reply_err(req, ENOTEMPTY);
                return;
            }
        }
    }
    std::unique_lock<std::mutex> io;
    if (node && !node->isDirectory) {
        io = std::unique_lock(node->io);
        bool onPhone = false;
        std::uint64_t size = 0;
        {
            std::lock_guard guard(node->mutex);
            onPhone = node->content.onPhone;
            size = node->content.size;
        }
        // Open handles keep reading the file once it is gone from the phone.
        if (onPhone && nodes_.opens(*node) > 0) {
            if (const int error = fetch(*node, 0, size); error != 0) {
                fuse_reply_err(req, error);
                return;
            }
        }
        if (!onPhone) {
            nodes_.unlink(identifier);
            folders_.erase(identifier);
            dropCopy(*node);
            fuse_reply_err(req, 0);
            return;
        }
    }
    const int error = phone_.remove(identifier);
    if (error != 0) {
        fuse_reply_err(req, error);
        return;
    }
    nodes_.unlink(identifier);
    folders_.erase(identifier);
    folderChanged(identifier);
    if (node) {
        dropCopy(*node);
    }
    fuse_reply_err(req, 0);
}

void VolumeFs::rename(fuse_req_t req, NodeId parent, const char* name, NodeId newParent,
                      const char* newName, unsigned int flags) {
    const auto from = nodes_.get(parent);
    const auto to = nodes_.get(newParent);
    if (!from || !to) {
        fuse_reply_err(req, ENOENT);
        return;
    }
    if (nameTooLong(newName)) {
        fuse_reply_err(req, ENAMETOOLONG);
        return;
    }
    if (flags & RENAME_EXCHANGE) {
        fuse_reply_err(req, EINVAL);
        return;
    }
    const auto source = childOf(nodes_.identifierOf(*from), name);
    const auto target = childOf(nodes_.identifierOf(*to), newName);
    // Known here or from the folder's listing; asked of the phone otherwise.
    using Known = FolderCache::Known;
    auto known = nodes_.find(target) ? Known::present : folders_.find(target).known;
    if (known == Known::unknown) {
        const auto found = phone_.lookup(target, RelayLookupSource::fsLookupByName);
        if (found.error != 0 && found.error != ENOENT) {
            fuse_reply_err(req, found.error);
            return;
        }
        known = found.error == 0 ? Known::present : Known::absent;
    }
    const bool targetExists = known == Known::present;
    if ((flags & RENAME_NOREPLACE) && targetExists) {
        fuse_reply_err(req, EEXIST);
        return;
    }
    const auto node = nodes_.find(source);
    std::unique_lock<std::mutex> io;
    if (node && !node->isDirectory) {
        io = std::unique_lock(node->io);
        bool onPhone = false;
        bool changed = false;
        {
            std::lock_guard guard(node->mutex);
            onPhone = node->content.onPhone;
            changed = node->content.changed;
        }
        if (!onPhone && !targetExists) {
            // Not on the phone yet: the name changes here and the push goes to the new one.
            nodes_.rename(source, target);
            folders_.erase(source);
            fuse_reply_err(req, 0);
            return;
        }
        // The phone renames only what it holds: the changes go first.
        if (changed) {
            if (const int error = push(node); error != 0) {
                fuse_reply_err(req, error);
                return;
            }
        }
    }
    const auto answer = phone_.rename(source, target);
    if (answer.error != 0) {
        fuse_reply_err(req, answer.error);
        return;
    }
    if (const auto replaced = nodes_.find(target)) {
        dropCopy(*replaced);
    }
    nodes_.rename(source, target);
    folders_.erase(source);
    folders_.put(answer.value);
    folderChanged(source);
    folderChanged(target);
    if (node) {
        std::lock_guard guard(node->mutex);
        apply(*node, answer.value);
    }
    fuse_reply_err(req, 0);
}

// --- open files --------------------------------------------------------------------

int VolumeFs::ensureCopy(Node& node) {
    auto& content = node.content;
    if (content.fd.get() >= 0) {
        return 0;
    }
    auto name = "copy_" + Uuid::random().text();
    UniqueFd fd(::open((copies_ / name).c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (fd.get() < 0) {
        const int error = errno;
        log::xpc().error("skiff-fs cannot make a local copy in %{public}s: %{public}s",
                         copies_.c_str(), std::strerror(error));
        return EIO;
    }
    // As long as the file, so that its holes read and copy as the file's length.
    if (::ftruncate(fd.get(), static_cast<off_t>(content.size)) != 0) {
        return EIO;
    }
    content.fd = std::move(fd);
    content.copyName = std::move(name);
    content.present = {};
    return 0;
}

void VolumeFs::keepIdle(const std::shared_ptr<Node>& node) {
    {
        std::lock_guard guard(node->mutex);
        const auto& content = node->content;
        struct stat st {};
        // A copy with changes stays until they are on the phone.
        if (content.changed || content.fd.get() < 0 || ::fstat(content.fd.get(), &st) != 0) {
            return;
        }
        budget_.idle(node, content.copyName, static_cast<std::uint64_t>(st.st_blocks) * 512);
    }
    evictIdle();
}

void VolumeFs::evictIdle() {
    for (const auto& idle : budget_.over()) {
        const auto node = idle.node.lock();
        if (!node) {
            // Its node is gone and took the descriptor with it; the file is left.
            std::error_code ignored;
            std::filesystem::remove(copies_ / idle.copyName, ignored);
            continue;
        }
        std::lock_guard guard(node->mutex);
        auto& content = node->content;
        if (nodes_.opens(*node) > 0 || content.changed || content.copyName != idle.copyName) {
            continue;
        }
        // The kernel's pages of this version stay valid; what it lacks is fetched anew.
        removeCopy(content);
    }
}

void VolumeFs::removeCopy(Content& content) {
    content.fd = UniqueFd();
    std::error_code ignored;
    std::filesystem::remove(copies_ / content.copyName, ignored);
    content.copyName.clear();
    content.present = {};
}

void VolumeFs::dropCopy(Node& node) {
    budget_.busy(node);
    std::lock_guard guard(node.mutex);
    auto& content = node.content;
    if (content.changed && !content.copyName.empty()) {
        pending_.remove(content.copyName);
    }
    content.changed = false;
    content.dirty = {};
    content.pushError = 0;
    nodes_.pin(node, false);
    if (nodes_.opens(node) > 0 || content.fd.get() < 0) {
        return;
    }
    removeCopy(content);
}

int VolumeFs::cut(Node& node, std::uint64_t size) {
    auto& content = node.content;
    if (const int error = ensureCopy(node); error != 0) {
        return error;
    }
    if (::ftruncate(content.fd.get(), static_cast<off_t>(size)) != 0) {
        return errno;
    }
    if (size > content.size) {
        // The new bytes are zeros of ours, not the phone's.
        content.present.add(content.size, size - content.size);
        content.dirty.add(content.size, size - content.size);
    } else {
        content.present.truncate(size);
        content.dirty.truncate(size);
    }
    content.size = size;
    content.changed = true;
    ++content.changes;
    content.lastChange = Clock::now();
    content.stream.live = content.stream.live && size == 0 && content.stream.stagedAs.empty();
    node.attributes.modifyTime = relayNow();
    node.attributes.changeTime = node.attributes.modifyTime;
    return 0;
}

void VolumeFs::markChanged(const std::shared_ptr<Node>& node) {
    nodes_.pin(*node, true);
    std::lock_guard guard(changedMutex_);
    changed_.insert(node);
}

void VolumeFs::open(fuse_req_t req, NodeId id, fuse_file_info* fi) {
    const auto node = nodes_.get(id);
    if (!node) {
        fuse_reply_err(req, ENOENT);
        return;
    }
    if (node->isDirectory) {
        fuse_reply_err(req, EISDIR);
        return;
    }
    const bool writable = (fi->flags & O_ACCMODE) != O_RDONLY;
    // A writer starts from the phone's current version; with the phone away, from the one
    // known here (a push finds out whether the phone's changed meanwhile).
    const int error = refresh(node, RelayLookupSource::fsGetAttributes, writable);
    bool known = false;
    {
        std::lock_guard guard(node->mutex);
        known = node->fetched != Clock::time_point{};
    }
    if (error == ENOENT || (error != 0 && !known)) {
        fuse_reply_err(req, error);
        return;
    }
    auto handle = std::make_unique<Handle>();
    handle->node = node;
    handle->writable = writable;
    {
        std::lock_guard guard(node->mutex);
        if (const int error = ensureCopy(*node); error != 0) {
            fuse_reply_err(req, error);
            return;
        }
        auto& content = node->content;
        if (writable && (fi->flags & O_TRUNC) && content.size > 0) {
            if (const int error = cut(*node, 0); error != 0) {
                fuse_reply_err(req, error);
                return;
            }
        } else if (writable && (fi->flags & O_TRUNC) && !content.changed) {
            content.changed = true;
            content.lastChange = Clock::now();
        }
        if (writable && (fi->flags & O_TRUNC)) {
            content.stream = {.live = true, .busy = false, .streamed = 0, .stagedAs = {}};
        }
        // The kernel's pages stay valid while the phone's version is the one they hold.
        fi->keep_cache = content.version && content.kernelCached == content.version;
        handle->replacements = content.replacements;
        if (!content.changed) {
            content.kernelCached = content.version;
        }
        if (writable) {
            ++content.writers;
        }
        // Under the node's lock, so that no eviction takes the copy just made sure of.
        nodes_.opened(*node);
    }
    if (writable && (fi->flags & O_TRUNC)) {
        markChanged(node);
    }
    budget_.busy(*node);
    fi->fh = reinterpret_cast<std::uint64_t>(handle.release());
    if (fuse_reply_open(req, fi) != 0) {
        release(nullptr, fi);
    }
}

void VolumeFs::create(fuse_req_t req, NodeId parent, const char* name, mode_t mode,
                      fuse_file_info* fi) {
    const auto directory = nodes_.get(parent);
    if (nameTooLong(name) || !directory) {
        fuse_reply_err(req, directory ? ENAMETOOLONG : ENOENT);
        return;
    }
    const auto identifier = childOf(nodes_.identifierOf(*directory), name);
    // Whatever the table knew under this name is gone: the kernel saw no entry.
    nodes_.unlink(identifier);
    const auto node = nodes_.learn(identifier, false, 1);
    {
        std::lock_guard guard(node->mutex);
        if (const int error = ensureCopy(*node); error != 0) {
            nodes_.forget(node->id, 1);
            fuse_reply_err(req, error);
            return;
        }
        node->attributes.identifier = identifier;
        node->attributes.filename = name;
        node->attributes.mode = mode & 07777;
        node->attributes.modifyTime = relayNow();
        node->attributes.accessTime = node->attributes.modifyTime;
        node->attributes.changeTime = node->attributes.modifyTime;
        node->fetched = Clock::now();
        auto& content = node->content;
        content.version.reset();
        content.onPhone = false;
        content.changed = true;
        content.lastChange = Clock::now();
        content.writers = 1;
        content.stream = {.live = true, .busy = false, .streamed = 0, .stagedAs = {}};
        folders_.put(node->attributes);
    }
    markChanged(node);
    nodes_.opened(*node);
    auto handle = std::make_unique<Handle>();
    handle->node = node;
    handle->writable = true;
    fi->fh = reinterpret_cast<std::uint64_t>(handle.release());
    const fuse_entry_param e = kernelEntry(*node);
    if (fuse_reply_create(req, &e, fi) != 0) {
        nodes_.forget(node->id, 1);
        release(nullptr, fi);
    }
}

int VolumeFs::fetch(Node& node, std::uint64_t offset, std::uint64_t length) {
    std::vector<ByteRange> missing;
    std::optional<Bytes> version;
    bool onPhone = false;
    std::uint64_t phoneSize = 0;
    {
        std::lock_guard guard(node.mutex);
        const auto end = std::min(offset + length, node.content.size);
        if (end <= offset) {
            return 0;
        }
        missing = node.content.present.gaps(offset, end - offset);
        version = node.content.version;
        onPhone = node.content.onPhone;
        phoneSize = node.attributes.size;
    }
    if (missing.empty()) {
        return 0;
    }
    if (!onPhone || nodes_.unlinked(node)) {
        return EIO;  // nothing on the phone holds these bytes
    }
    const auto identifier = nodes_.identifierOf(node);
    // Whole read units, at most a chunk a request; an item without a version can only be
    // read in whole chunks.
    const std::uint64_t unit = version ? kReadUnit : kChunkSize;
    Bytes chunk;
    std::uint64_t done = 0;  // everything before it is fetched
    for (const auto& gap : missing) {
        const auto gapEnd = gap.offset + gap.length;
        for (std::uint64_t start = std::max(gap.offset / unit * unit, done); start < gapEnd;) {
            if (start >= phoneSize) {
                return EIO;  // the phone's copy is shorter than the bytes it must give
            }
            const auto want = version ? std::min<std::uint64_t>(
                                            kChunkSize, (gapEnd - start + unit - 1) / unit * unit)
                                      : kChunkSize;
            // At the node's version, so that a replacement on the phone is an error rather
            // than bytes of two versions.
            const int error =
                version ? phone_.readRange(identifier, start, static_cast<std::uint32_t>(want),
                                           *version, chunk)
                        : phone_.readChunk(identifier, start, chunk);
            if (error != 0) {
                return error == kVersionChangedErrno ? EIO : error;
            }
            // A chunk shorter than the item says is a fault of the phone, never the end.
            const auto expected = std::min<std::uint64_t>(want, phoneSize - start);
            if (chunk.size() < expected) {
                log::xpc().error(
                    "skiff-fs got %{public}zu bytes of %{public}s at %{public}llu, "
                    "expected %{public}llu",
                    chunk.size(), identifier.c_str(), static_cast<unsigned long long>(start),
                    static_cast<unsigned long long>(expected));
                return EIO;
            }
            std::lock_guard guard(node.mutex);
            auto& content = node.content;
            if (content.version != version) {
                return EIO;  // never bytes of two versions
            }
            const auto end = std::min<std::uint64_t>(start + expected, content.size);
            if (end > start) {
                // Bytes written here meanwhile win over the phone's.
                for (const auto& hole : content.present.gaps(start, end - start)) {
                    const auto* from = chunk.data() + (hole.offset - start);
                    if (::pwrite(content.fd.get(), from, hole.length,
                                 static_cast<off_t>(hole.offset)) !=
                        static_cast<ssize_t>(hole.length)) {
                        return EIO;
                    }
                    content.present.add(hole.offset, hole.length);
                }
            }
            start += want;
            done = start;
        }
    }
    return 0;
}

void VolumeFs::read(fuse_req_t req, std::size_t size, off_t offset, fuse_file_info* fi) {
    auto& handle = handleOf(fi);
    auto& node = *handle.node;
    const auto start = static_cast<std::uint64_t>(offset);
    bool complete = false;
    ByteRange needed{start, size};
    std::optional<ByteRange> ahead;
    {
        std::lock_guard guard(node.mutex);
        // The phone replaced the file since this handle opened it: it never reads on in the
        // new one.
        if (handle.replacements != node.content.replacements) {
            fuse_reply_err(req, EIO);
            return;
        }
        const auto fileSize = node.content.size;
        const auto end = std::min<std::uint64_t>(start + size, fileSize);
        complete = end <= start || node.content.present.covers(start, end - start);
        ahead = readAhead(handle, start, size, fileSize, complete, needed);
        if (!node.content.version) {
            ahead.reset();  // bytes read without a version cannot be told apart from a push's
        }
    }
    if (!complete) {
        std::lock_guard io(node.io);
        if (const int error = fetch(node, needed.offset, needed.length); error != 0) {
            fuse_reply_err(req, error);
            return;
        }
    }
    if (ahead) {
        prefetch(handle.node, *ahead);
    }
    std::vector<char> buffer;
    {
        std::lock_guard guard(node.mutex);
        const auto end = std::min<std::uint64_t>(start + size, node.content.size);
        buffer.resize(end > start ? end - start : 0);
        if ((!buffer.empty() && !node.content.present.covers(start, buffer.size())) ||
            handle.replacements != node.content.replacements) {
            fuse_reply_err(req, EIO);  // the version changed between the fetch and now
            return;
        }
        const auto got = buffer.empty()
                             ? 0
                             : ::pread(node.content.fd.get(), buffer.data(), buffer.size(), offset);
        if (got < 0) {
            fuse_reply_err(req, errno);
            return;
        }
        buffer.resize(static_cast<std::size_t>(got));
    }
    fuse_reply_buf(req, buffer.data(), buffer.size());
}

void VolumeFs::prefetch(const std::shared_ptr<Node>& node, ByteRange range) {
    auto& queue = *prefetchers_[nextPrefetcher_.fetch_add(1) % prefetchers_.size()];
    queue.post([this, weak = std::weak_ptr<Node>(node), range] {
        const auto node = weak.lock();
        if (!node || backgroundStopping_) {
            return;
        }
        // Without the node's io lock, so that the reader's fetch and a push need not wait for
        // it: a fetch writes only bytes the copy lacks, at the version it asked for.
        fetch(*node, range.offset, range.length);  // a failure shows when the reader gets here
    });
}

void VolumeFs::write(fuse_req_t req, const char* buffer, std::size_t size, off_t offset,
                     fuse_file_info* fi) {
    auto& handle = handleOf(fi);
    auto& node = *handle.node;
    ssize_t written = 0;
    bool startStream = false;
    {
        std::lock_guard guard(node.mutex);
        auto& content = node.content;
        if (const int error = ensureCopy(node); error != 0) {
            fuse_reply_err(req, error);
            return;
        }
        const auto start = static_cast<std::uint64_t>(offset);
        written = ::pwrite(content.fd.get(), buffer, size, offset);
        if (written < 0) {
            fuse_reply_err(req, errno);
            return;
        }
        if (start > content.size) {
            // The hole before the write reads as zeros of ours.
            content.present.add(content.size, start - content.size);
            content.dirty.add(content.size, start - content.size);
        }
        content.present.add(start, static_cast<std::uint64_t>(written));
        content.dirty.add(start, static_cast<std::uint64_t>(written));
        content.size = std::max(content.size, start + static_cast<std::uint64_t>(written));
        content.changed = true;
        ++content.changes;
        content.lastChange = Clock::now();
        node.attributes.modifyTime = relayNow();
        node.attributes.changeTime = node.attributes.modifyTime;
        handle.wrote(content);
        auto& stream = content.stream;
        // A write into a chunk already sent, or on its way, ends the stream.
        stream.live = stream.live && start >= stream.streamed + (stream.busy ? kChunkSize : 0);
        startStream =
            stream.live && !stream.busy && content.dirty.covers(stream.streamed, kChunkSize);
        stream.busy = stream.busy || startStream;
    }
    markChanged(handle.node);
    fuse_reply_write(req, static_cast<std::size_t>(written));
    if (startStream) {
        streamChunks(handle.node);
    }
}

void VolumeFs::streamChunks(const std::shared_ptr<Node>& node) {
    streamer_.post([this, weak = std::weak_ptr<Node>(node)] {
        const auto node = weak.lock();
        if (!node) {
            return;
        }
        std::lock_guard io(node->io);
        const auto identifier = nodes_.identifierOf(*node);
        for (;;) {
            PhoneRelay::PushPlan plan;
            ByteRange chunk;
            bool staged = false;
            {
                std::lock_guard guard(node->mutex);
                auto& content = node->content;
                auto& stream = content.stream;
                // A rename meanwhile leaves the stage under the old name: the close stages anew.
                if (backgroundStopping_ || !stream.live ||
                    !content.dirty.covers(stream.streamed, kChunkSize) ||
                    (!stream.stagedAs.empty() && stream.stagedAs != identifier)) {
                    stream.busy = false;
                    return;
                }
                plan.identifier = identifier;
                plan.baseVersion = content.onPhone ? content.version : std::nullopt;
                plan.fd = content.fd.get();
                staged = !stream.stagedAs.empty();
                chunk = {stream.streamed, kChunkSize};
            }
            // Staged empty: the chunks that follow make the file, whatever it held before.
            int error = staged ? 0 : phone_.stage(plan);
            if (error == 0) {
                error = phone_.sendRange(plan, chunk);
            }
            std::lock_guard guard(node->mutex);
            auto& stream = node->content.stream;
            if (error != 0 || !stream.live) {
                // The close pushes the whole file as if nothing had been streamed.
                stream = {};
                return;
            }
            stream.stagedAs = identifier;
            stream.streamed += kChunkSize;
        }
    });
}

void VolumeFs::flush(fuse_req_t req, fuse_file_info* fi) {
    auto& handle = handleOf(fi);
    // Shells and dd open the file, duplicate the descriptor and close the first one before
    // writing: pushing then would send an empty file ahead of the real one. So the close of
    // the last handle with writes not yet closed pushes and waits (the kernel tells no close
    // which is the last: its releases come later, on their own); an earlier writer's close
    // leaves the push to it and only reports one that failed before.
    int earlier = 0;
    bool last = false;
    {
        std::lock_guard guard(handle.node->mutex);
        last = handle.writable && handle.closed(handle.node->content);
        earlier = handle.node->content.pushError;
    }
    if (!last) {
        fuse_reply_err(req, handle.writable ? earlier : 0);
        return;
    }
    std::lock_guard io(handle.node->io);
    fuse_reply_err(req, push(handle.node));
}

void VolumeFs::fsync(fuse_req_t req, fuse_file_info* fi) {
    const auto& node = handleOf(fi).node;
    std::lock_guard io(node->io);
    fuse_reply_err(req, push(node));
}

void VolumeFs::release(fuse_req_t req, fuse_file_info* fi) {
    std::unique_ptr<Handle> handle(&handleOf(fi));
    auto& node = *handle->node;
    bool lastWriter = false;
    if (handle->writable) {
        std::lock_guard guard(node.mutex);
        handle->closed(node.content);
        lastWriter = --node.content.writers == 0 && node.content.changed;
    }
    if (nodes_.closed(node)) {
        dropCopy(node);
        lastWriter = false;
    } else if (nodes_.opens(node) == 0) {
        keepIdle(handle->node);
    }
    if (req) {
        fuse_reply_err(req, 0);
    }
    // A file closed without a write after its duplicate's close (a new or emptied one) still
    // goes to the phone now; a failure is kept for the retries and the next close.
    if (lastWriter) {
        std::lock_guard io(node.io);
        push(handle->node);
    }
}

// --- pushes ------------------------------------------------------------------------

int VolumeFs::pushChanges(Node& node, const std::string& identifier,
                          const std::optional<Bytes>& base, std::uint64_t size, bool everything) {
    // The phone stages from its own copy of the base version, so only what was written here
    // travels; a new item starts empty, so the bytes it gets are all it will hold.
    PhoneRelay::PushPlan plan;
    plan.identifier = identifier;
    plan.baseVersion = base;
    plan.size = size;
    {
        std::lock_guard guard(node.mutex);
        plan.dirty = everything ? std::vector<ByteRange>{{0, size}} : node.content.dirty.ranges();
        plan.fd = node.content.fd.get();
        // What the stream staged already stays there; only the rest goes.
        auto& stream = node.content.stream;
        if (!everything && stream.live && stream.stagedAs == identifier) {
            plan.staged = true;
            RangeSet rest = node.content.dirty;
            rest.remove(0, stream.streamed);
            plan.dirty = rest.ranges();
        }
        // Whatever this push does, a new one stages anew.
        stream = {};
        // (No mode is known of a new item a crash left without its record's mode.)
        if ((!base && (node.attributes.mode & 07777) != 0) || node.content.modePending) {
            plan.mode = node.attributes.mode & 07777;
        }
        if (node.content.timesPending) {
            plan.modifyTime = node.attributes.modifyTime;
            plan.accessTime = node.attributes.accessTime;
        }
    }
    const auto pushed = phone_.pushRanges(plan);
    // (A conflict copy's half-pushed version is another item's, never this node's.)
    if (pushed.error != 0 && (!pushed.committed || everything)) {
        return pushed.error;
    }
    {
        std::lock_guard guard(node.mutex);
        auto& content = node.content;
        if (content.kernelCached && content.kernelCached == content.version && pushed.error == 0) {
            content.kernelCached = pushed.value.contentVersion;  // the kernel holds these bytes
        }
        // A version committed by a push that failed midway is the phone's now: the next push
        // stages from it and sends every dirty range again.
        content.version = pushed.value.contentVersion;
        content.onPhone = true;
        if (pushed.error == 0) {
            content.lastPush = Clock::now();
            content.timesPending = content.modePending = false;
            node.attributes = pushed.value;
            node.fetched = Clock::now();
        }
    }
    if (pushed.error == 0) {
        folders_.put(pushed.value);
    }
    folderChanged(identifier);  // the commit put a file there
    return pushed.error;
}

int VolumeFs::push(const std::shared_ptr<Node>& node) {
    std::optional<Bytes> version;
    std::uint64_t size = 0;
    std::uint64_t changes = 0;
    bool onPhone = false;
    {
        std::lock_guard guard(node->mutex);
        if (!node->content.changed) {
            return 0;
        }
        onPhone = node->content.onPhone;
        version = node->content.version;
        size = node->content.size;
        changes = node->content.changes;
    }
    if (nodes_.unlinked(*node)) {
        return 0;  // removed before it reached the phone: nothing to keep
    }
    const auto identifier = nodes_.identifierOf(*node);
    // Written before the phone is asked, so that a crash meanwhile loses nothing.
    record(*node, identifier, false);
    int error = pushChanges(*node, identifier, onPhone ? version : std::nullopt, size, false);
    if (error == kConflictErrno) {
        error = keepBoth(*node, identifier);
        if (error == 0) {
            return kConflictErrno;  // told once: the user's bytes are under another name
        }
    }
    if (error != 0) {
        record(*node, identifier, true);  // the bytes wait here for a while now
    }
    std::lock_guard guard(node->mutex);
    auto& content = node->content;
    if (error != 0) {
        log::xpc().error("skiff-fs push of %{public}s failed, kept to try again: %{public}s",
                         identifier.c_str(), std::strerror(error));
        content.pushError = error;
        content.retryDelay =
            std::clamp<std::chrono::seconds>(content.retryDelay * 2, kFirstRetry, kLastRetry);
        content.nextRetry = Clock::now() + content.retryDelay;
        return error;
    }
    content.pushError = 0;
    content.retryDelay = {};
    if (content.changes == changes) {
        content.changed = false;
        content.dirty = {};
        content.size = node->attributes.size;
        nodes_.pin(*node, false);
        pending_.remove(content.copyName);
    }
    return 0;
}

int VolumeFs::keepBoth(Node& node, const std::string& identifier) {
    const auto name = conflictName(nameOf(identifier), std::chrono::system_clock::now());
    std::uint64_t size = 0;
    bool whole = false;
    {
        std::lock_guard guard(node.mutex);
        size = node.content.size;
        whole = node.content.present.covers(0, size);
    }
    if (whole) {
        // A new item beside the phone's: the whole file is here.
        const auto beside = childOf(parentOf(identifier), name);
        if (const int error = pushChanges(node, beside, std::nullopt, size, true); error != 0) {
            return error;
        }
        tellUser(phone_, "\"" + identifier +
                             "\" changed on the phone while it was written here; this " +
                             "computer's version is kept as \"" + beside + "\"");
    } else {
        const auto data =
            transfer::harborDataPath(std::getenv("XDG_DATA_HOME"), std::getenv("HOME"));
        if (!data) {
            return EIO;
        }
        const auto folder = *data / "recovered";
        std::error_code failed;
        std::filesystem::create_directories(folder, failed);
        UniqueFd out(
            ::open((folder / name).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        std::lock_guard guard(node.mutex);
        off_t from = 0;
        while (out.get() >= 0 && static_cast<std::uint64_t>(from) < size) {
            if (::copy_file_range(node.content.fd.get(), &from, out.get(), nullptr,
                                  size - static_cast<std::uint64_t>(from), 0) <= 0) {
                break;
            }
        }
        if (out.get() < 0 || static_cast<std::uint64_t>(from) < size || ::fsync(out.get()) != 0) {
            return EIO;
        }
        tellUser(phone_, "\"" + identifier +
                             "\" changed on the phone while it was written here; this " +
                             "computer's part of it is kept in " + (folder / name).string());
    }
    std::lock_guard guard(node.mutex);
    auto& content = node.content;
    pending_.remove(content.copyName);
    content.changed = false;
    content.dirty = {};
    content.present = {};
    content.pushError = 0;
    node.fetched = {};  // the phone's version is the file's again
    nodes_.pin(node, false);
    return 0;
}

void VolumeFs::pushLoop() {
    std::unique_lock lock(changedMutex_);
    while (!stopping_) {
        wake_.wait_for(lock, kPusherTick, [&] { return stopping_ || retry_; });
        if (stopping_) {
            break;
        }
        const bool retry = std::exchange(retry_, false);
        const std::vector<std::shared_ptr<Node>> candidates(changed_.begin(), changed_.end());
        lock.unlock();
        const auto now = Clock::now();
        for (const auto& node : candidates) {
            bool due = false;
            bool done = false;
            {
                std::lock_guard guard(node->mutex);
                const auto& content = node->content;
                done = !content.changed || nodes_.unlinked(*node);
                due = now - content.lastChange >= kQuietBeforePush &&
                      (retry || now >= content.nextRetry);
            }
            if (!done && due) {
                std::lock_guard io(node->io);
                push(node);
                std::lock_guard guard(node->mutex);
                done = !node->content.changed;
            }
            if (done) {
                std::lock_guard guard(changedMutex_);
                changed_.erase(node);
            }
        }
        lock.lock();
    }
}

// --- directories and space ---------------------------------------------------------

void VolumeFs::opendir(fuse_req_t req, NodeId id, fuse_file_info* fi) {
    const auto node = nodes_.get(id);
    if (!node) {
        fuse_reply_err(req, ENOENT);
        return;
    }
    if (!node->isDirectory) {
        fuse_reply_err(req, ENOTDIR);
        return;
    }
    const auto identifier = nodes_.identifierOf(*node);
    const auto asked = Clock::now();
    auto answer = phone_.list(identifier);
    if (answer.error != 0) {
        fuse_reply_err(req, answer.error);
        return;
    }
    folders_.store(identifier, asked, answer.value);
    auto listing = std::make_unique<Listing>();
    listing->items = std::move(answer.value);
    listing->asked = asked;
    // Files made here that the phone does not hold yet are in the folder too.
    for (const auto& child : nodes_.children(identifier)) {
        const auto name = nameOf(nodes_.identifierOf(*child));
        std::lock_guard guard(child->mutex);
        if (child->content.onPhone || !child->content.changed || child->isDirectory) {
            continue;
        }
        RelayItemSummary local = child->attributes;
        local.identifier = childOf(identifier, name);
        local.filename = name;
        local.size = child->content.size;
        listing->items.push_back(std::move(local));
    }
    fi->fh = reinterpret_cast<std::uint64_t>(listing.release());
    fi->cache_readdir = 0;
    if (fuse_reply_open(req, fi) != 0) {
        delete reinterpret_cast<Listing*>(fi->fh);
    }
}

void VolumeFs::readdir(fuse_req_t req, std::size_t size, off_t offset, fuse_file_info* fi,
                       bool plus) {
    const auto& listing = *reinterpret_cast<Listing*>(fi->fh);
    const auto& items = listing.items;
    std::vector<char> buffer(size);
    std::size_t used = 0;
    for (auto index = static_cast<std::size_t>(offset); index < items.size(); ++index) {
        const auto& item = items[index];
        const auto next = static_cast<off_t>(index + 1);
        std::size_t length = 0;
        if (plus) {
            const auto node = nodes_.learn(item.identifier, item.isDirectory, 1);
            fuse_entry_param e{};
            {
                std::lock_guard guard(node->mutex);
                if (!node->content.changed && listing.asked > node->content.lastPush) {
                    apply(*node, item);
                }
                e.attr = attributesOf(*node);
            }
            e.ino = node->id;
            e.generation = 1;
            e.attr_timeout = kKernelCacheSeconds;
            e.entry_timeout = kKernelCacheSeconds;
            length = fuse_add_direntry_plus(req, buffer.data() + used, size - used,
                                            item.filename.c_str(), &e, next);
            if (length > size - used) {
                nodes_.forget(node->id, 1);
            }
        } else {
            struct stat st {};
            st.st_ino = item.inode ? item.inode : 1;
            st.st_mode = item.isDirectory ? S_IFDIR : S_IFREG;
            length = fuse_add_direntry(req, buffer.data() + used, size - used,
                                       item.filename.c_str(), &st, next);
        }
        if (length > size - used) {
            break;
        }
        used += length;
    }
    fuse_reply_buf(req, buffer.data(), used);
}

void VolumeFs::releasedir(fuse_req_t req, fuse_file_info* fi) {
    delete reinterpret_cast<Listing*>(fi->fh);
    fuse_reply_err(req, 0);
}

void VolumeFs::statfs(fuse_req_t req) {
    const auto answer = phone_.space();
    if (answer.error != 0) {
        fuse_reply_err(req, answer.error);
        return;
    }
    constexpr std::uint64_t kBlock = 4096;
    struct statvfs st {};
    st.f_bsize = kBlock;
    st.f_frsize = kBlock;
    st.f_blocks = answer.value.totalBytes / kBlock;
    st.f_bfree = answer.value.freeBytes / kBlock;
    st.f_bavail = st.f_bfree;
    st.f_namemax = kNameMax;
    fuse_reply_statfs(req, &st);
}

}  // namespace skiff::volume
