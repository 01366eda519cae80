#include "sim/app_transfer.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>  // renameat2
#include <limits>
#include <variant>
#include <vector>

#include "common/file_io.hpp"
#include "common/serial_queue.hpp"
#include "common/task.hpp"
#include "common/uuid.hpp"
#include "relay/relay_schema.hpp"
#include "sim/app_storage.hpp"
#include "transfer/file_io_records.hpp"
#include "tunnel/tunnel_frame.hpp"

namespace skiff::sim {
namespace {

using relay::RelayDeviceStatus;

constexpr auto kLargestOffset = static_cast<std::uint64_t>(std::numeric_limits<off_t>::max());

std::uint16_t codeOf(RelayDeviceStatus status) {
    return static_cast<std::uint16_t>(status);
}

tunnel::TunnelMessage readFailure(RelayDeviceStatus status) {
    return {codeOf(status), {}};
}

tunnel::TunnelMessage rejection(RelayDeviceStatus status) {
    const transfer::FileIODeviceRejection body{static_cast<std::int64_t>(status)};
    return {codeOf(status), json::encode(body).value_or(Bytes{})};
}

template <class Record>
tunnel::TunnelMessage answerWith(const Record& record) {
    auto body = json::encode(record);
    if (!body) {
        // A name that is not UTF-8 has no JSON spelling.
        return rejection(RelayDeviceStatus::ioError);
    }
    return {codeOf(RelayDeviceStatus::ok), std::move(*body)};
}

// The status for an item that must be a regular file, when it is not one.
std::optional<RelayDeviceStatus> notAFile(mode_t mode) {
    if (S_ISDIR(mode)) {
        return RelayDeviceStatus::isDirectory;
    }
    if (!S_ISREG(mode)) {
        return RelayDeviceStatus::invalidArgument;
    }
    return std::nullopt;
}

// Links the unnamed file into folder under name, replacing what is there in one step.
// Linking an open unnamed file by descriptor needs privileges; its /proc path does not.
// A file it replaces is left open in replaced: freeing a large file's pages and blocks
// takes as long as writing it, and is done when that descriptor is closed, not here.
int linkOver(int file, int folder, const std::string& name, UniqueFd& replaced) {
    const std::string source = "/proc/self/fd/" + std::to_string(file);
    const std::string temporary = ".skiff-commit-" + Uuid::random().text();
    if (::linkat(AT_FDCWD, source.c_str(), folder, temporary.c_str(), AT_SYMLINK_FOLLOW) != 0) {
        return errno;
    }
    replaced =
        UniqueFd(::openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    // Swapped rather than renamed over: ext4 writes a file renamed over another back to
    // disk before the rename returns.
    if (replaced.get() >= 0 &&
        ::renameat2(folder, temporary.c_str(), folder, name.c_str(), RENAME_EXCHANGE) == 0) {
        ::unlinkat(folder, temporary.c_str(), 0);
        return 0;
    }
    if (::renameat(folder, temporary.c_str(), folder, name.c_str()) != 0) {
        const int error = errno;
        ::unlinkat(folder, temporary.c_str(), 0);
        return error;
    }
    return 0;
}

// Copies the item's first `limit` bytes (or all it has) into file; errno set on failure.
// copy_file_range lets the file system share the blocks rather than copy them.
bool copyContent(const StorageItem& item, int file, std::uint64_t limit) {
    const UniqueFd source(::openat(item.folder.get(), item.name.c_str(),
                                   O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (source.get() < 0) {
        return false;
    }
    loff_t in = 0;
    loff_t out = 0;
    while (static_cast<std::uint64_t>(in) < limit) {
        const auto want = static_cast<std::size_t>(
            std::min<std::uint64_t>(limit - static_cast<std::uint64_t>(in), 1ULL << 30));
        const ssize_t copied = ::copy_file_range(source.get(), &in, file, &out, want, 0);
        if (copied < 0) {
            return false;
        }
        if (copied == 0) {
            break;  // the item ends before the limit
        }
    }
    return true;
}

}  // namespace

AppTransfer::AppTransfer(std::filesystem::path storageRoot) : root_(std::move(storageRoot)) {}

tunnel::TunnelMessage AppTransfer::readChunk(const Bytes& body) {
    const auto request = transfer::decodeReadChunkRequest(body);
    // A reply has to fit in one frame.
    if (!request || request->length > tunnel::maxFramePayload) {
        return readFailure(RelayDeviceStatus::invalidArgument);
    }
    auto located = locateItem(root_, request->identifier);
    if (const auto* status = std::get_if<RelayDeviceStatus>(&located)) {
        return readFailure(*status);
    }
    const auto& item = std::get<StorageItem>(located);
    if (item.name.empty()) {
        return readFailure(RelayDeviceStatus::isDirectory);
    }
    // O_NONBLOCK: a FIFO in the storage must not stall the app.
    const UniqueFd file(::openat(item.folder.get(), item.name.c_str(),
                                 O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st {};
    if (file.get() < 0 || ::fstat(file.get(), &st) != 0) {
        return readFailure(statusOfError(errno));
    }
    if (const auto status = notAFile(st.st_mode)) {
        return readFailure(*status);
    }
    // Nothing lies beyond the largest offset a file can have.
    const std::uint64_t room = kLargestOffset - std::min(request->offset, kLargestOffset);
    Bytes bytes(static_cast<std::size_t>(std::min<std::uint64_t>(request->length, room)));
    const auto done = readUpTo(file.get(), bytes, request->offset);
    if (!done) {
        return readFailure(statusOfError(errno));
    }
    bytes.resize(*done);
    return {codeOf(RelayDeviceStatus::ok), std::move(bytes)};
}

tunnel::TunnelMessage AppTransfer::stageWrite(const Bytes& body) {
    const auto request = json::decode<transfer::RelayTruncateWriteRequest>(body);
    if (!request || request->size > kLargestOffset) {
        return rejection(RelayDeviceStatus::invalidArgument);
    }
    auto located = locateItem(root_, request->identifier);
    if (const auto* status = std::get_if<RelayDeviceStatus>(&located)) {
        return rejection(*status);
    }
    auto& item = std::get<StorageItem>(located);
    if (item.name.empty()) {
        return rejection(RelayDeviceStatus::isDirectory);
    }
    struct statx st {};
    const bool exists = statItem(item, st);
    if (exists) {
        if (const auto status = notAFile(st.stx_mode)) {
            return rejection(*status);
        }
    }
    const Bytes current = exists ? contentVersionOf(st) : Bytes{};
    if (request->expectedContentVersion && *request->expectedContentVersion != current) {
        return rejection(RelayDeviceStatus::versionConflict);
    }
    const mode_t mode = exists ? (st.stx_mode & 07777) : 0644;
    UniqueFd file(::openat(item.folder.get(), ".", O_TMPFILE | O_RDWR | O_CLOEXEC, mode));
    if (file.get() < 0 || (exists && !copyContent(item, file.get(), request->size)) ||
        ::ftruncate(file.get(), static_cast<off_t>(request->size)) != 0) {
        return rejection(statusOfError(errno));
    }
    // A second stage of the same item starts the write over.
    staged_.insert_or_assign(item.path, StagedWrite{current, std::move(file)});
    return {codeOf(RelayDeviceStatus::ok), {}};
}

tunnel::TunnelMessage AppTransfer::writeChunk(const Bytes& body) {
    const auto request = transfer::decodeWriteChunkRequest(body);
    if (!request || request->offset > kLargestOffset - request->bytes.size()) {
        return rejection(RelayDeviceStatus::invalidArgument);
    }
    auto located = locateItem(root_, request->identifier);
    if (const auto* status = std::get_if<RelayDeviceStatus>(&located)) {
        return rejection(*status);
    }
    const auto staged = staged_.find(std::get<StorageItem>(located).path);
    if (staged == staged_.end()) {
        return rejection(RelayDeviceStatus::invalidArgument);
    }
    const int file = staged->second.file.get();
    struct stat st {};
    if (!writeAllAt(file, request->bytes, request->offset) || ::fstat(file, &st) != 0) {
        const auto status = statusOfError(errno);
        staged_.erase(staged);
        return rejection(status);
    }
    const transfer::RelayWriteChunkResponse response{request->offset + request->bytes.size(),
                                                     static_cast<std::uint64_t>(st.st_size),
                                                     std::nullopt};
    return answerWith(response);
}

void AppTransfer::chunkFailed(const Bytes& body) {
    const auto request = transfer::decodeWriteChunkRequest(body);
    if (!request) {
        return;
    }
    auto located = locateItem(root_, request->identifier);
    if (const auto* item = std::get_if<StorageItem>(&located)) {
        staged_.erase(item->path);
    }
}

tunnel::TunnelMessage AppTransfer::commitWrite(const Bytes& body) {
    const auto request = json::decode<transfer::RelayCommitWriteRequest>(body);
    if (!request) {
        return rejection(RelayDeviceStatus::invalidArgument);
    }
    auto located = locateItem(root_, request->identifier);
    if (const auto* status = std::get_if<RelayDeviceStatus>(&located)) {
        return rejection(*status);
    }
    const auto& item = std::get<StorageItem>(located);
    auto node = staged_.extract(item.path);
    if (node.empty()) {
        return rejection(RelayDeviceStatus::invalidArgument);
    }
    const StagedWrite& staged = node.mapped();
    struct statx st {};
    const Bytes current = statItem(item, st) ? contentVersionOf(st) : Bytes{};
    if (current != staged.version) {
        return rejection(RelayDeviceStatus::versionConflict);
    }
    UniqueFd replaced;
    if (const int error = linkOver(staged.file.get(), item.folder.get(), item.name, replaced)) {
        return rejection(statusOfError(error));
    }
    if (replaced.get() >= 0) {
        replaced_.push_back(std::move(replaced));
    }
    if (!statItem(item, st)) {
        return rejection(RelayDeviceStatus::ioError);
    }
    return answerWith(summaryOf(st, request->identifier, item.name));
}

namespace {

using Step = tunnel::TunnelMessage (AppTransfer::*)(const Bytes&);

struct TransferWorker {
    explicit TransferWorker(std::filesystem::path storageRoot)
        : transfer(std::move(storageRoot)), releases("skiff-sim.app-release") {}

    AppTransfer transfer;
    // Closes the contents that commits replaced, after their answers went out.
    runtime::SerialQueue releases;
};

// A plain function, so that the coroutine owns its arguments rather than a lambda's captures.
asio::awaitable<tunnel::TunnelMessage> answerStep(std::shared_ptr<TransferWorker> worker, Step step,
                                                  Bytes body) {
    auto answer = ((worker->transfer).*step)(body);
    if (auto replaced = worker->transfer.takeReplaced(); !replaced.empty()) {
        worker->releases.post([files = std::move(replaced)]() mutable { files.clear(); });
    }
    co_return answer;
}

}  // namespace

void installTransferHandlers(CompanionApp& app, std::filesystem::path storageRoot) {
    auto transfer = std::make_shared<TransferWorker>(std::move(storageRoot));
    auto& table = app.handlers();
    const std::pair<std::uint16_t, Step> steps[] = {
        {kReadChunkRequestCode, &AppTransfer::readChunk},
        {kStageWriteRequestCode, &AppTransfer::stageWrite},
        {kWriteChunkRequestCode, &AppTransfer::writeChunk},
        {kCommitWriteRequestCode, &AppTransfer::commitWrite},
    };
    for (const auto& [code, step] : steps) {
        table[code] = [transfer, step = step](Bytes body) {
            return answerStep(transfer, step, std::move(body));
        };
    }
    app.onWriteChunkFailed([transfer](const Bytes& body) { transfer->transfer.chunkFailed(body); });
}

}  // namespace skiff::sim
