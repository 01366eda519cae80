#pragma once

// The companion app's side of whole-file transfers, over the folder that stands for the
// phone's storage (identifiers as in sim/app_storage.hpp):
//   9   read chunk      binary read-chunk body; answers the bytes at the offset, fewer
//                       (down to none) past the end
//   15  stage a write   RelayTruncateWriteRequest; a copy of the item, cut or extended to
//                       the size, is kept for the writes that follow. When the request
//                       carries an expected content version that is not the item's (an
//                       item that does not exist has the empty version), it is refused
//                       with versionConflict
//   11  write chunk     binary write-chunk body into the staged copy; answers a
//                       RelayWriteChunkResponse
//   6   commit          RelayCommitWriteRequest; the staged copy replaces the item in one
//                       step; answers the item's RelayItemSummary
// Refusals answer a RelayDeviceStatus code: reads with an empty body, the write steps
// with a FileIODeviceRejection of the same status. A staged write lasts until its commit
// or the next stage of the same item, or until a write chunk of it fails; a write chunk or
// commit without one is invalidArgument. The commit is refused with versionConflict when the item
// changed since its stage (written by hand, renamed, removed, replaced by a rename), so that a
// write never lands on content its writer did not see.
//
// The staged copy is an unnamed file in the item's folder: nobody sees it before the
// commit, it is on the same file system for the atomic rename, and an app that stops
// leaves nothing behind. It starts as zeros of the announced size rather than as a copy
// of the old content, since a push rewrites every byte.

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "common/bytes.hpp"
#include "common/unique_fd.hpp"
#include "sim/app_handlers.hpp"
#include "sim/app_storage.hpp"
#include "sim/companion_app.hpp"
#include "tunnel/tunnel_engine.hpp"

namespace skiff::sim {

inline constexpr std::uint16_t kCommitWriteRequestCode = 6;
inline constexpr std::uint16_t kReadChunkRequestCode = 9;
inline constexpr std::uint16_t kWriteChunkRequestCode = 11;
inline constexpr std::uint16_t kStageWriteRequestCode = 15;

// Holds the staged writes by item. Its calls block on the file system and must come one
// at a time, as the app's single-threaded executor makes them.
class AppTransfer {
public:
    explicit AppTransfer(std::filesystem::path storageRoot);
    AppTransfer(const AppTransfer&) = delete;
    AppTransfer& operator=(const AppTransfer&) = delete;

    tunnel::TunnelMessage readChunk(const Bytes& body);
    tunnel::TunnelMessage stageWrite(const Bytes& body);
    tunnel::TunnelMessage writeChunk(const Bytes& body);
    tunnel::TunnelMessage commitWrite(const Bytes& body);
    // The write chunk failed: its item's stage ends, so that the commit sent after it
    // without waiting is refused rather than land a file with a hole.
    void chunkFailed(const Bytes& body);

    // The contents the commits since the last call replaced, still open: closing them frees
    // their storage, which for a large file takes a while, so the caller does it once the
    // answer is out.
    std::vector<UniqueFd> takeReplaced() { return std::exchange(replaced_, {}); }

private:
    struct StagedWrite {
        Bytes version;  // the item's content version at the stage; empty when it had none
        UniqueFd file;
    };

    std::filesystem::path root_;
    std::map<std::string, StagedWrite> staged_;  // by the item's path
    std::vector<UniqueFd> replaced_;
};

// Answers the four codes above from one AppTransfer over storageRoot, and ends a stage whose
// chunk failed.
void installTransferHandlers(CompanionApp& app, std::filesystem::path storageRoot);

}  // namespace skiff::sim
