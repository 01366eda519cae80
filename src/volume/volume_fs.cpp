#include "volume/volume_fs.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <asio/post.hpp>
#include <cstring>
#include <optional>
#include <utility>

#include "common/log.hpp"
#include "common/uuid.hpp"
#include "transfer/file_io_records.hpp"

namespace skiff::volume {

using relay::RelayLookupSource;
using transfer::kChunkSize;

// One open handle. Read-only handles read the phone's content of `version`; writable ones
// keep the whole content in `staged`, a file of the shared container named `stagedName`
// (empty once a push released that name).
struct OpenFile {
    std::string identifier;
    Bytes version;  // the content version seen at open, then at the last push
    std::uint64_t size = 0;
    bool writable = false;
    std::mutex mutex;
    UniqueFd staged;
    std::string stagedName;
    bool dirty = false;
    bool written = false;              // by this handle's writes or cuts, since it was opened
    std::uint64_t nextSequential = 0;  // where a sequential reader reads next
};

namespace {

constexpr auto kCacheLifetime = std::chrono::seconds(1);
constexpr double kKernelCacheSeconds = 1.0;
// The chunk being copied out, the ones read ahead of it and one spare for a second reader:
// more only costs memory, since a sequential reader never comes back to an older chunk.
constexpr std::size_t kCachedChunks = 4;
// Chunks fetched ahead of a sequential reader, each by a thread of its own: the tunnel
// carries several requests at once, and one in flight leaves it idle between replies.
constexpr std::uint64_t kReadAheadChunks = 2;

VolumeFs& self() {
    return *static_cast<VolumeFs*>(fuse_get_context()->private_data);
}

OpenFile& handle(fuse_file_info* fi) {
    return *reinterpret_cast<OpenFile*>(fi->fh);
}

timespec timeOf(const relay::RelayTimespec& t) {
    return {static_cast<time_t>(t.tvSec), static_cast<long>(t.tvNsec)};
}

void fillStat(const RelayItemSummary& item, struct stat* st) {
    *st = {};
    const mode_t permissions = item.mode & 07777;
    st->st_mode = item.isDirectory ? S_IFDIR | (permissions ? permissions : 0755)
                                   : S_IFREG | (permissions ? permissions : 0644);
    st->st_nlink = item.linkCount ? item.linkCount : (item.isDirectory ? 2 : 1);
    // The phone's owners mean nothing here: the items belong to whoever mounted them.
    st->st_uid = ::getuid();
    st->st_gid = ::getgid();
    st->st_size = static_cast<off_t>(item.size);
    st->st_blocks = static_cast<blkcnt_t>((item.allocSize + 511) / 512);
    st->st_blksize = kChunkSize;
    st->st_atim = timeOf(item.accessTime);
    st->st_mtim = timeOf(item.modifyTime);
    st->st_ctim = timeOf(item.changeTime);
}

// A staged file as the kernel should see it: its size is the staged content's.
void fillStagedStat(const OpenFile& file, struct stat* st) {
    struct stat staged {};
    ::fstat(file.staged.get(), &staged);
    *st = {};
    st->st_mode = S_IFREG | 0644;
    st->st_nlink = 1;
    st->st_uid = ::getuid();
    st->st_gid = ::getgid();
    st->st_size = staged.st_size;
    st->st_blocks = staged.st_blocks;
    st->st_blksize = kChunkSize;
    st->st_atim = staged.st_atim;
    st->st_mtim = staged.st_mtim;
    st->st_ctim = staged.st_ctim;
}

std::string stagedFileName() {
    return "volume_" + Uuid::random().text() + ".stage";
}

}  // namespace

VolumeFs::VolumeFs(PhoneRelay& phone, transfer::SharedFileStorage storage)
    : phone_(phone), storage_(std::move(storage)), items_(kCacheLifetime), chunks_(kCachedChunks) {}

VolumeFs::~VolumeFs() {
    finish();
}

void VolumeFs::finish() {
    background_.join();
}

Answer<RelayItemSummary> VolumeFs::item(const std::string& id, RelayLookupSource source,
                                        bool fresh) {
    if (!fresh) {
        if (auto cached = items_.item(id)) {
            return {0, std::move(*cached)};
        }
    }
    auto answer = phone_.lookup(id, source);
    if (answer.error == 0) {
        items_.storeItem(answer.value);
    } else if (answer.error == ENOENT) {
        forget(id);
    }
    return answer;
}

void VolumeFs::forget(const std::string& id) {
    items_.forget(id);
    chunks_.dropItem(id);
}

int VolumeFs::getattr(const std::string& id, struct stat* st, fuse_file_info* fi) {
    if (fi && handle(fi).writable) {
        auto& file = handle(fi);
        std::lock_guard guard(file.mutex);
        fillStagedStat(file, st);
        return 0;
    }
    {
        std::lock_guard guard(openMutex_);
        if (const auto it = writers_.find(id); it != writers_.end()) {
            // Unflushed content (or a file not yet on the phone) is what the item is now.
            std::lock_guard fileGuard(it->second->mutex);
            fillStagedStat(*it->second, st);
            return 0;
        }
    }
    // A handle's own attributes are what the kernel asked about; a path is a look-up.
    const auto source = fi ? RelayLookupSource::fsGetAttributes : RelayLookupSource::fsLookupByName;
    const auto answer = item(id, source, false);
    if (answer.error != 0) {
        return -answer.error;
    }
    fillStat(answer.value, st);
    return 0;
}

int VolumeFs::readdir(const std::string& id, void* buffer, fuse_fill_dir_t filler,
                      fuse_readdir_flags flags) {
    auto listing = items_.listing(id);
    if (!listing) {
        auto answer = phone_.list(id);
        if (answer.error != 0) {
            return -answer.error;
        }
        items_.storeListing(id, answer.value);
        listing = std::move(answer.value);
    }
    const auto plus = (flags & FUSE_READDIR_PLUS) ? FUSE_FILL_DIR_PLUS : fuse_fill_dir_flags{};
    filler(buffer, ".", nullptr, 0, fuse_fill_dir_flags{});
    filler(buffer, "..", nullptr, 0, fuse_fill_dir_flags{});
    struct stat st {};
    for (const auto& entry : *listing) {
        fillStat(entry, &st);
        if (filler(buffer, entry.filename.c_str(), &st, 0, plus) != 0) {
            return -ENOMEM;
        }
    }
    return 0;
}

int VolumeFs::stage(OpenFile& file, bool fillFromPhone) {
    try {
        file.stagedName = stagedFileName();
        file.staged = storage_.create(file.stagedName, 0);
    } catch (const std::exception& e) {
        log::xpc().error("skiff-fs cannot stage %{public}s: %{public}s", file.identifier.c_str(),
                         e.what());
        return EIO;
    }
    Bytes chunk;
    for (std::uint64_t offset = 0; fillFromPhone && offset < file.size; offset += chunk.size()) {
        if (const int error = phone_.readChunk(file.identifier, offset, chunk); error != 0) {
            return error;
        }
        if (chunk.empty()) {
            break;
        }
        const auto written =
            ::pwrite(file.staged.get(), chunk.data(), chunk.size(), static_cast<off_t>(offset));
        if (written != static_cast<ssize_t>(chunk.size())) {
            return EIO;
        }
    }
    return 0;
}

int VolumeFs::push(OpenFile& file) {
    if (!file.dirty) {
        return 0;
    }
    file.dirty = false;
    struct stat st {};
    if (::fstat(file.staged.get(), &st) != 0) {
        return EIO;
    }
    if (file.stagedName.empty()) {
        // An earlier push handed the staged file to the service, which removed its name;
        // the content lives on in our descriptor and goes out under a new one.
        std::string name = stagedFileName();
        try {
            auto copy = storage_.create(name, 0);
            off_t from = 0;
            while (from < st.st_size) {
                const auto moved =
                    ::copy_file_range(file.staged.get(), &from, copy.get(), nullptr,
                                      static_cast<std::size_t>(st.st_size - from), 0);
                if (moved <= 0) {
                    storage_.remove(name);
                    return EIO;
                }
            }
            file.staged = std::move(copy);
            file.stagedName = std::move(name);
        } catch (const std::exception&) {
            return EIO;
        }
    }
    const auto answer = phone_.push(file.identifier, file.version, file.stagedName,
                                    static_cast<std::uint64_t>(st.st_size));
    file.stagedName.clear();
    forget(file.identifier);
    if (answer.error != 0) {
        log::xpc().error("skiff-fs push of %{public}s failed: %{public}s", file.identifier.c_str(),
                         std::strerror(answer.error));
        return answer.error;
    }
    file.version = answer.value.contentVersion.value_or(Bytes{});
    file.size = answer.value.size;
    items_.storeItem(answer.value);
    return 0;
}

int VolumeFs::open(const std::string& id, fuse_file_info* fi) {
    const bool writable = (fi->flags & O_ACCMODE) != O_RDONLY;
    // A writer must start from the phone's current version; a reader may use a fresh look-up.
    const auto answer = item(id, RelayLookupSource::fsGetAttributes, writable);
    if (answer.error != 0) {
        return -answer.error;
    }
    if (answer.value.isDirectory) {
        return -EISDIR;
    }
    auto file = std::make_unique<OpenFile>();
    file->identifier = id;
    file->version = answer.value.contentVersion.value_or(Bytes{});
    file->size = answer.value.size;
    file->writable = writable;
    if (writable) {
        const bool truncating = (fi->flags & O_TRUNC) != 0;
        if (const int error = stage(*file, !truncating); error != 0) {
            storage_.remove(file->stagedName);
            return -error;
        }
        file->dirty = truncating;
        std::lock_guard guard(openMutex_);
        writers_.emplace(id, file.get());
    }
    fi->fh = reinterpret_cast<std::uint64_t>(file.release());
    return 0;
}

int VolumeFs::create(const std::string& id, fuse_file_info* fi) {
    auto file = std::make_unique<OpenFile>();
    file->identifier = id;
    file->writable = true;
    // Even an empty new file must reach the phone when closed.
    file->dirty = true;
    if (const int error = stage(*file, false); error != 0) {
        return -error;
    }
    {
        std::lock_guard guard(openMutex_);
        writers_.emplace(id, file.get());
    }
    items_.forget(id);
    fi->fh = reinterpret_cast<std::uint64_t>(file.release());
    return 0;
}

void VolumeFs::readAhead(const OpenFile& file, std::uint64_t index) {
    if (index * kChunkSize >= file.size) {
        return;
    }
    ChunkKey key{file.identifier, file.version, index};
    if (chunks_.holds(key)) {
        return;
    }
    asio::post(background_, [this, key = std::move(key)] {
        chunks_.get(key, [&](Bytes& out) {
            return phone_.readChunk(key.identifier, key.index * kChunkSize, out);
        });
    });
}

int VolumeFs::read(OpenFile& file, char* buffer, std::size_t size, off_t offset) {
    std::lock_guard guard(file.mutex);
    if (file.writable) {
        const auto got = ::pread(file.staged.get(), buffer, size, offset);
        return got < 0 ? -errno : static_cast<int>(got);
    }
    const auto start = static_cast<std::uint64_t>(offset);
    const bool sequential = start == file.nextSequential;
    std::size_t copied = 0;
    std::uint64_t index = 0;
    while (copied < size && start + copied < file.size) {
        const std::uint64_t position = start + copied;
        index = position / kChunkSize;
        const auto chunk = chunks_.get({file.identifier, file.version, index}, [&](Bytes& out) {
            return phone_.readChunk(file.identifier, index * kChunkSize, out);
        });
        if (chunk.error != 0) {
            return -chunk.error;
        }
        const std::uint64_t within = position - index * kChunkSize;
        if (within >= chunk.bytes->size()) {
            break;  // the phone's file is shorter than it said
        }
        const auto take = std::min<std::uint64_t>(size - copied, chunk.bytes->size() - within);
        std::memcpy(buffer + copied, chunk.bytes->data() + within, take);
        copied += take;
    }
    file.nextSequential = start + copied;
    if (sequential && copied > 0) {
        for (std::uint64_t ahead = 1; ahead <= kReadAheadChunks; ++ahead) {
            readAhead(file, index + ahead);
        }
    }
    return static_cast<int>(copied);
}

int VolumeFs::write(OpenFile& file, const char* buffer, std::size_t size, off_t offset) {
    std::lock_guard guard(file.mutex);
    const auto written = ::pwrite(file.staged.get(), buffer, size, offset);
    if (written < 0) {
        return -errno;
    }
    file.dirty = true;
    file.written = true;
    return static_cast<int>(written);
}

int VolumeFs::flush(OpenFile& file) {
    if (!file.writable) {
        return 0;
    }
    std::lock_guard guard(file.mutex);
    return -push(file);
}

int VolumeFs::close(OpenFile& file) {
    if (!file.writable) {
        return 0;
    }
    std::lock_guard guard(file.mutex);
    // Shells and dd open the file, duplicate the descriptor and close the first one before
    // writing: pushing a new or emptied file then would send an empty copy ahead of the
    // real one. Its release pushes it if nothing else does.
    if (!file.written) {
        return 0;
    }
    return -push(file);
}

void VolumeFs::release(OpenFile* file) {
    std::unique_ptr<OpenFile> owned(file);
    if (!file->writable) {
        return;
    }
    {
        std::lock_guard guard(file->mutex);
        push(*file);
        if (!file->stagedName.empty()) {
            storage_.remove(file->stagedName);
        }
    }
    std::lock_guard guard(openMutex_);
    for (auto it = writers_.lower_bound(file->identifier);
         it != writers_.end() && it->first == file->identifier; ++it) {
        if (it->second == file) {
            writers_.erase(it);
            break;
        }
    }
}

int VolumeFs::truncate(const std::string& id, off_t size, fuse_file_info* fi) {
    if (size < 0) {
        return -EINVAL;
    }
    const auto cut = [size](OpenFile& writer) {
        std::lock_guard guard(writer.mutex);
        if (::ftruncate(writer.staged.get(), size) != 0) {
            return -errno;
        }
        writer.dirty = true;
        writer.written = true;
        return 0;
    };
    if (fi && handle(fi).writable) {
        return cut(handle(fi));
    }
    {
        // Held while the writer is cut, so that its release cannot free it meanwhile.
        std::lock_guard guard(openMutex_);
        if (const auto it = writers_.find(id); it != writers_.end()) {
            return cut(*it->second);
        }
    }
    // No handle: stage the content, cut it and push it at once.
    const auto answer = item(id, RelayLookupSource::fsGetAttributes, true);
    if (answer.error != 0) {
        return -answer.error;
    }
    if (answer.value.isDirectory) {
        return -EISDIR;
    }
    OpenFile file;
    file.identifier = id;
    file.version = answer.value.contentVersion.value_or(Bytes{});
    file.size = std::min<std::uint64_t>(answer.value.size, static_cast<std::uint64_t>(size));
    int error = stage(file, size > 0);
    if (error == 0 && ::ftruncate(file.staged.get(), size) != 0) {
        error = errno;
    }
    if (error == 0) {
        file.dirty = true;
        error = push(file);
    }
    if (!file.stagedName.empty()) {
        storage_.remove(file.stagedName);
    }
    if (error == 0) {
        item(id, RelayLookupSource::fsSetAttributesAfterTruncate, true);
    }
    return -error;
}

int VolumeFs::remove(const std::string& id) {
    const int error = phone_.remove(id);
    forget(id);
    return -error;
}

int VolumeFs::makeDirectory(const std::string& id) {
    const auto answer = phone_.makeDirectory(id);
    forget(id);
    if (answer.error != 0) {
        return -answer.error;
    }
    items_.storeItem(answer.value);
    return 0;
}

int VolumeFs::rename(const std::string& from, const std::string& to, unsigned int flags) {
    if (flags & RENAME_EXCHANGE) {
        return -EINVAL;
    }
    if (flags & RENAME_NOREPLACE) {
        const auto target = item(to, RelayLookupSource::fsLookupByName, true);
        if (target.error == 0) {
            return -EEXIST;
        }
        if (target.error != ENOENT) {
            return -target.error;
        }
    }
    const auto answer = phone_.rename(from, to);
    forget(from);
    forget(to);
    if (answer.error != 0) {
        return -answer.error;
    }
    items_.storeItem(answer.value);
    return 0;
}

int VolumeFs::touch(const std::string& id, const char* path) {
    {
        std::lock_guard guard(openMutex_);
        if (writers_.count(id) != 0) {
            return 0;  // being written here: the phone's view comes with the push
        }
    }
    forget(id);
    const auto answer = item(id, RelayLookupSource::fsSetAttributesRefresh, true);
    // Whatever the phone says now, the kernel's view of the item and of its directory is
    // stale. Dropping an inode's attributes takes no lock this operation holds, so it is
    // done before answering: the next stat sees the phone's state.
    auto* fuse = fuse_get_context()->fuse;
    fuse_invalidate_path(fuse, path);
    fuse_invalidate_path(fuse, ("/" + parentOf(id)).c_str());
    return -answer.error;
}

// --- libfuse's entry points --------------------------------------------------------

namespace {

void* init(fuse_conn_info* conn, fuse_config* cfg) {
    // Open with O_TRUNC arrives whole, so a truncating writer is not a push of its own.
    conn->want |= FUSE_CAP_ATOMIC_O_TRUNC & conn->capable;
    cfg->entry_timeout = kKernelCacheSeconds;
    cfg->attr_timeout = kKernelCacheSeconds;
    cfg->negative_timeout = 0;
    // An unlinked open file is removed on the phone at once, never renamed to a hidden one.
    cfg->hard_remove = 1;
    return fuse_get_context()->private_data;
}

int getattrOp(const char* path, struct stat* st, fuse_file_info* fi) {
    return self().getattr(identifierOfPath(path), st, fi);
}

int readdirOp(const char* path, void* buffer, fuse_fill_dir_t filler, off_t, fuse_file_info*,
              fuse_readdir_flags flags) {
    return self().readdir(identifierOfPath(path), buffer, filler, flags);
}

int openOp(const char* path, fuse_file_info* fi) {
    return self().open(identifierOfPath(path), fi);
}

int createOp(const char* path, mode_t, fuse_file_info* fi) {
    return self().create(identifierOfPath(path), fi);
}

int readOp(const char*, char* buffer, size_t size, off_t offset, fuse_file_info* fi) {
    return self().read(handle(fi), buffer, size, offset);
}

int writeOp(const char*, const char* buffer, size_t size, off_t offset, fuse_file_info* fi) {
    return self().write(handle(fi), buffer, size, offset);
}

int flushOp(const char*, fuse_file_info* fi) {
    return self().close(handle(fi));
}

int fsyncOp(const char*, int, fuse_file_info* fi) {
    return self().flush(handle(fi));
}

int releaseOp(const char*, fuse_file_info* fi) {
    self().release(&handle(fi));
    return 0;
}

int truncateOp(const char* path, off_t size, fuse_file_info* fi) {
    return self().truncate(identifierOfPath(path), size, fi);
}

int removeOp(const char* path) {
    return self().remove(identifierOfPath(path));
}

int mkdirOp(const char* path, mode_t) {
    return self().makeDirectory(identifierOfPath(path));
}

int renameOp(const char* from, const char* to, unsigned int flags) {
    return self().rename(identifierOfPath(from), identifierOfPath(to), flags);
}

int utimensOp(const char* path, const timespec[2], fuse_file_info*) {
    return self().touch(identifierOfPath(path), path);
}

// The phone keeps its own owners and modes; changing them here is accepted and ignored,
// so that copying tools do not fail on it.
int chmodOp(const char*, mode_t, fuse_file_info*) {
    return 0;
}

int chownOp(const char*, uid_t, gid_t, fuse_file_info*) {
    return 0;
}

int statfsOp(const char*, struct statvfs* st) {
    // The phone's free space is not asked for; a large, mostly free volume lets copies
    // start, and a full phone answers noSpace (ENOSPC) on the push.
    *st = {};
    st->f_bsize = 4096;
    st->f_frsize = 4096;
    st->f_blocks = (std::uint64_t{1} << 40) / 4096;
    st->f_bfree = st->f_blocks / 2;
    st->f_bavail = st->f_bfree;
    st->f_files = 1'000'000;
    st->f_ffree = 500'000;
    st->f_favail = st->f_ffree;
    st->f_namemax = 255;
    return 0;
}

}  // namespace

fuse_operations VolumeFs::operations() {
    fuse_operations ops{};
    ops.init = init;
    ops.getattr = getattrOp;
    ops.readdir = readdirOp;
    ops.open = openOp;
    ops.create = createOp;
    ops.read = readOp;
    ops.write = writeOp;
    ops.flush = flushOp;
    ops.fsync = fsyncOp;
    ops.release = releaseOp;
    ops.truncate = truncateOp;
    ops.unlink = removeOp;
    ops.rmdir = removeOp;
    ops.mkdir = mkdirOp;
    ops.rename = renameOp;
    ops.utimens = utimensOp;
    ops.chmod = chmodOp;
    ops.chown = chownOp;
    ops.statfs = statfsOp;
    return ops;
}

}  // namespace skiff::volume
