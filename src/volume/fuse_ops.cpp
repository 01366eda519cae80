// libfuse's low-level entry points: each finds the VolumeFs as the request's user data.

#include <fcntl.h>

#include "volume/volume_fs.hpp"

namespace skiff::volume {

namespace {

VolumeFs& self(fuse_req_t req) {
    return *static_cast<VolumeFs*>(fuse_req_userdata(req));
}

void initOp(void*, fuse_conn_info* conn) {
    // Open with O_TRUNC arrives whole, so a truncating writer is not a cut of its own.
    conn->want |= FUSE_CAP_ATOMIC_O_TRUNC & conn->capable;
    // Every listing carries its entries' attributes: `ls -l` asks nothing per entry.
    conn->want |= FUSE_CAP_READDIRPLUS & conn->capable;
    conn->want &= ~FUSE_CAP_READDIRPLUS_AUTO;
}

void lookupOp(fuse_req_t req, fuse_ino_t parent, const char* name) {
    self(req).lookup(req, parent, name);
}

void forgetOp(fuse_req_t req, fuse_ino_t id, std::uint64_t count) {
    self(req).forget(id, count);
    fuse_reply_none(req);
}

void forgetMultiOp(fuse_req_t req, std::size_t count, fuse_forget_data* forgets) {
    for (std::size_t i = 0; i < count; ++i) {
        self(req).forget(forgets[i].ino, forgets[i].nlookup);
    }
    fuse_reply_none(req);
}

void getattrOp(fuse_req_t req, fuse_ino_t id, fuse_file_info*) {
    self(req).getattr(req, id);
}

void setattrOp(fuse_req_t req, fuse_ino_t id, struct stat* attr, int toSet, fuse_file_info* fi) {
    self(req).setattr(req, id, *attr, toSet, fi);
}

void mkdirOp(fuse_req_t req, fuse_ino_t parent, const char* name, mode_t) {
    self(req).mkdir(req, parent, name);
}

void unlinkOp(fuse_req_t req, fuse_ino_t parent, const char* name) {
    self(req).unlink(req, parent, name);
}

void renameOp(fuse_req_t req, fuse_ino_t parent, const char* name, fuse_ino_t newParent,
              const char* newName, unsigned int flags) {
    self(req).rename(req, parent, name, newParent, newName, flags);
}

// Links, special files and symbolic links have no item on the phone.
void mknodOp(fuse_req_t req, fuse_ino_t, const char*, mode_t, dev_t) {
    fuse_reply_err(req, EPERM);
}

void symlinkOp(fuse_req_t req, const char*, fuse_ino_t, const char*) {
    fuse_reply_err(req, EPERM);
}

void linkOp(fuse_req_t req, fuse_ino_t, fuse_ino_t, const char*) {
    fuse_reply_err(req, EPERM);
}

void openOp(fuse_req_t req, fuse_ino_t id, fuse_file_info* fi) {
    self(req).open(req, id, fi);
}

void createOp(fuse_req_t req, fuse_ino_t parent, const char* name, mode_t mode,
              fuse_file_info* fi) {
    self(req).create(req, parent, name, mode, fi);
}

void readOp(fuse_req_t req, fuse_ino_t, std::size_t size, off_t offset, fuse_file_info* fi) {
    self(req).read(req, size, offset, fi);
}

void writeOp(fuse_req_t req, fuse_ino_t, const char* buffer, std::size_t size, off_t offset,
             fuse_file_info* fi) {
    self(req).write(req, buffer, size, offset, fi);
}

void flushOp(fuse_req_t req, fuse_ino_t, fuse_file_info* fi) {
    self(req).flush(req, fi);
}

void releaseOp(fuse_req_t req, fuse_ino_t, fuse_file_info* fi) {
    self(req).release(req, fi);
}

void fsyncOp(fuse_req_t req, fuse_ino_t, int, fuse_file_info* fi) {
    self(req).fsync(req, fi);
}

void opendirOp(fuse_req_t req, fuse_ino_t id, fuse_file_info* fi) {
    self(req).opendir(req, id, fi);
}

void readdirOp(fuse_req_t req, fuse_ino_t, std::size_t size, off_t offset, fuse_file_info* fi) {
    self(req).readdir(req, size, offset, fi, false);
}

void readdirplusOp(fuse_req_t req, fuse_ino_t, std::size_t size, off_t offset, fuse_file_info* fi) {
    self(req).readdir(req, size, offset, fi, true);
}

void releasedirOp(fuse_req_t req, fuse_ino_t, fuse_file_info* fi) {
    self(req).releasedir(req, fi);
}

void statfsOp(fuse_req_t req, fuse_ino_t) {
    self(req).statfs(req);
}

}  // namespace

fuse_lowlevel_ops VolumeFs::operations() {
    fuse_lowlevel_ops ops{};
    ops.init = initOp;
    ops.lookup = lookupOp;
    ops.forget = forgetOp;
    ops.forget_multi = forgetMultiOp;
    ops.getattr = getattrOp;
    ops.setattr = setattrOp;
    ops.mkdir = mkdirOp;
    ops.unlink = unlinkOp;
    ops.rmdir = unlinkOp;
    ops.rename = renameOp;
    ops.mknod = mknodOp;
    ops.symlink = symlinkOp;
    ops.link = linkOp;
    ops.open = openOp;
    ops.create = createOp;
    ops.read = readOp;
    ops.write = writeOp;
    ops.flush = flushOp;
    ops.release = releaseOp;
    ops.fsync = fsyncOp;
    ops.opendir = opendirOp;
    ops.readdir = readdirOp;
    ops.readdirplus = readdirplusOp;
    ops.releasedir = releasedirOp;
    ops.statfs = statfsOp;
    return ops;
}

}  // namespace skiff::volume
