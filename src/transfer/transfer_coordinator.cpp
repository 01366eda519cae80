#include "transfer/transfer_coordinator.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <deque>
#include <limits>
#include <optional>
#include <utility>

#include "common/bridge_messages.hpp"
#include "common/file_io.hpp"
#include "common/log.hpp"

namespace skiff::transfer {

namespace {

using relay::RelayDeviceStatus;
using relay::UsbMuxRelayError;
using SteadyClock = std::chrono::steady_clock;
using Case = TransferError::Case;

constexpr std::uint16_t kLookupCode = 2;
constexpr std::uint16_t kCommitWriteCode = 6;
constexpr std::uint16_t kReadChunkCode = 9;
constexpr std::uint16_t kWriteChunkCode = 11;
constexpr std::uint16_t kTruncateWriteCode = 15;

double millisSince(SteadyClock::time_point start) {
    return std::chrono::duration<double, std::milli>(SteadyClock::now() - start).count();
}

std::string formatMs(double ms) {
    char text[64];
    std::snprintf(text, sizeof text, "%.2f", ms);
    return text;
}

std::string formatRate(std::uint64_t bytes, double ms) {
    const double rate = ms > 0 ? (static_cast<double>(bytes) / 1'048'576.0) / (ms / 1000.0) : 0;
    char text[64];
    std::snprintf(text, sizeof text, "%.2f MiB/s", rate);
    return text;
}

// What one transfer measured, for its benchmark line.
struct Benchmark {
    SteadyClock::time_point start = SteadyClock::now();
    std::uint64_t size = 0;
    std::uint64_t transferred = 0;
    std::uint64_t chunks = 0;
    double transportMs = 0;
    double fileMs = 0;  // writing for a fetch, reading for a push
    double tailMs = 0;

    void write(const char* operation, const char* fileLabel, const std::string& id, bool ok) const {
        const double totalMs = millisSince(start);
        const std::string format = std::string(operation) +
                                   " benchmark id=%{public}s outcome=%{public}s size=%{public}llu "
                                   "transferred=%{public}llu chunks=%{public}llu "
                                   "totalMs=%{public}s transportMs=%{public}s " +
                                   fileLabel +
                                   "=%{public}s tailMs=%{public}s effective=%{public}s "
                                   "transportOnly=%{public}s";
        log::xpc().info(
            format.c_str(), id.c_str(), ok ? "ok" : "error", static_cast<unsigned long long>(size),
            static_cast<unsigned long long>(transferred), static_cast<unsigned long long>(chunks),
            formatMs(totalMs).c_str(), formatMs(transportMs).c_str(), formatMs(fileMs).c_str(),
            formatMs(tailMs).c_str(), formatRate(transferred, totalMs).c_str(),
            formatRate(transferred, transportMs).c_str());
    }
};

template <class T>
std::optional<Bytes> encodeOrFail(const T& value) {
    auto body = json::encode(value);
    if (!body) {
        throw TransferError(Case::encodeFailed);
    }
    return body;
}

template <class T>
T decodeOrFail(const Bytes& body) {
    auto value = json::decode<T>(body);
    if (!value) {
        throw TransferError(Case::decodeFailed);
    }
    return std::move(*value);
}

}  // namespace

const char* TransferError::what() const noexcept {
    switch (case_) {
        case Case::deviceRejected:
            return "the phone refused the transfer";
        case Case::transport:
            return "the tunnel to the phone failed";
        case Case::noDevice:
            return "no phone is attached";
        case Case::encodeFailed:
            return "a request to the phone could not be encoded";
        case Case::decodeFailed:
            return "the phone's answer did not decode";
        case Case::ioFailed:
            return "a container file could not be made, read or written";
    }
    return "transfer failed";
}

FileIOBridgeError bridgeErrorFor(const TransferError& error) {
    switch (error.errorCase()) {
        case Case::deviceRejected:
            return FileIOBridgeError::deviceRejected;
        case Case::transport:
            return FileIOBridgeError::transportFailed;
        case Case::noDevice:
            return FileIOBridgeError::noDevice;
        case Case::encodeFailed:
            return FileIOBridgeError::encodeFailed;
        case Case::decodeFailed:
            return FileIOBridgeError::invalidDeviceReply;
        case Case::ioFailed:
            return FileIOBridgeError::storageFailed;
    }
    return FileIOBridgeError::transportFailed;
}

// Percent steps of one transfer: each multiple of ten up to 90 once, as it is reached,
// and 100 at the end; nothing at all for an empty item.
struct TransferCoordinator::Progress {
    std::shared_ptr<ProgressSink> sink;
    Uuid session;
    std::uint64_t total;
    unsigned nextStep = 10;

    void emit(std::uint64_t completed, unsigned percent) const {
        if (sink != nullptr) {
            sink->fileIOProgress({session, completed, total, static_cast<std::uint8_t>(percent)});
        }
    }
    void advance(std::uint64_t completed) {
        if (total == 0) {
            return;
        }
        std::uint64_t percent = 100;
        if (completed < total) {
            // Avoids overflowing completed * 100 for sizes near the top of the range.
            percent = completed <= std::numeric_limits<std::uint64_t>::max() / 100
                          ? completed * 100 / total
                          : completed / (total / 100);
        }
        while (nextStep <= 90 && percent >= nextStep) {
            emit(completed, nextStep);
            nextStep += 10;
        }
    }
    void finish() const {
        if (total != 0) {
            emit(total, 100);
        }
    }
};

// The chunk requests of one transfer in flight, oldest first; lives in the transfer's
// frame on the strand. Requests after a failed one are not sent, and drain() waits for
// every request still out, so that none outlives the transfer's answer (a late write
// chunk must not reach the app after the writer was told the push failed).
class TransferCoordinator::Window {
public:
    struct Answer {
        std::uint64_t offset = 0;
        std::uint64_t length = 0;
        Bytes body;
    };

    explicit Window(std::shared_ptr<TransferCoordinator> owner) : owner_(std::move(owner)) {}
    Window(const Window&) = delete;
    Window& operator=(const Window&) = delete;

    bool full() const { return sent_.size() >= kChunksInFlight; }

    void launch(std::uint16_t code, SharedBytes body, std::uint64_t offset, std::uint64_t length) {
        runtime::OnceReply<Bytes> reply;
        owner_->spawnIsolated(owner_, &TransferCoordinator::sendAhead, code, std::move(body), reply,
                              stopped_);
        sent_.push_back(Sent{offset, length, std::move(reply)});
    }

    // The oldest request's answer; throws its failure.
    asio::awaitable<Answer> next() {
        Sent head = std::move(sent_.front());
        sent_.pop_front();
        Answer answer;
        answer.offset = head.offset;
        answer.length = head.length;
        answer.body = co_await std::move(head.reply).wait();
        co_return answer;
    }

    // Stops the requests not yet sent and waits for the others, whatever they answer; the
    // window starts afresh.
    asio::awaitable<void> drain() {
        *stopped_ = true;
        while (!sent_.empty()) {
            Sent head = std::move(sent_.front());
            sent_.pop_front();
            try {
                co_await std::move(head.reply).wait();
            } catch (...) {
                // Its outcome no longer matters.
            }
        }
        stopped_ = std::make_shared<bool>(false);
    }

private:
    struct Sent {
        std::uint64_t offset;
        std::uint64_t length;
        runtime::OnceReply<Bytes> reply;
    };

    std::shared_ptr<TransferCoordinator> owner_;
    std::shared_ptr<bool> stopped_ = std::make_shared<bool>(false);
    std::deque<Sent> sent_;
};

TransferCoordinator::TransferCoordinator(asio::any_io_executor executor,
                                         std::shared_ptr<RelaySender> relay,
                                         std::shared_ptr<const SharedFileStorage> storage,
                                         std::shared_ptr<ProgressSink> progress, Now now)
    : Actor(executor),
      relay_(std::move(relay)),
      sink_(std::move(progress)),
      storage_(std::move(storage)),
      now_(now ? std::move(now) : Now([] { return Clock::now(); })) {}

asio::awaitable<SharedFileDescriptor> TransferCoordinator::fetchRemoteFile(std::string identifier,
                                                                           Uuid sessionID) {
    return isolated(shared_from_this(), &TransferCoordinator::doFetch, std::move(identifier),
                    sessionID);
}

asio::awaitable<relay::RelayItemSummary> TransferCoordinator::pushSharedFile(
    FileIOBeginWriteRequest request) {
    return isolated(shared_from_this(), &TransferCoordinator::doPush, std::move(request));
}

asio::awaitable<void> TransferCoordinator::releaseRead(std::string token) {
    return isolated(shared_from_this(), &TransferCoordinator::doReleaseRead, std::move(token));
}

asio::awaitable<void> TransferCoordinator::releaseWrite(std::string token) {
    return isolated(shared_from_this(), &TransferCoordinator::doReleaseWrite, std::move(token));
}

asio::awaitable<void> TransferCoordinator::cleanUp() {
    return isolated(shared_from_this(), &TransferCoordinator::doCleanUp);
}

asio::awaitable<std::size_t> TransferCoordinator::activeReadCount() {
    return isolated(shared_from_this(), &TransferCoordinator::doActiveReadCount);
}

asio::awaitable<std::size_t> TransferCoordinator::activeWriteCount() {
    return isolated(shared_from_this(), &TransferCoordinator::doActiveWriteCount);
}

void TransferCoordinator::startCleanup() {
    spawnIsolated(shared_from_this(), &TransferCoordinator::cleanupLoop);
}

void TransferCoordinator::stopCleanup() {
    // The timer is only touched on the strand.
    asio::post(strand(), [weak = weak_from_this()] {
        if (auto self = weak.lock()) {
            self->cleanupStopped_ = true;
            if (self->cleanupTimer_) {
                self->cleanupTimer_->cancel();
            }
        }
    });
}

asio::awaitable<void> TransferCoordinator::cleanupLoop() {
    assertIsolated();
    if (cleanupStarted_ || cleanupStopped_) {
        co_return;
    }
    cleanupStarted_ = true;
    cleanupTimer_ = std::make_shared<asio::steady_timer>(strand());
    const auto timer = cleanupTimer_;
    while (!cleanupStopped_) {
        timer->expires_after(kCleanupPeriod);
        std::error_code ec;
        co_await timer->async_wait(asio::redirect_error(asio::use_awaitable, ec));
        if (cleanupStopped_ || ec == asio::error::operation_aborted) {
            break;
        }
        co_await doCleanUp();
    }
}

asio::awaitable<void> TransferCoordinator::doCleanUp() {
    assertIsolated();
    const auto cutoff = now_() - kStaleAge;
    for (auto* table : {&activeReads_, &activeWrites_}) {
        for (auto it = table->begin(); it != table->end();) {
            if (it->second.createdAt < cutoff) {
                storage_->remove(it->second.fileName);
                it = table->erase(it);
            } else {
                ++it;
            }
        }
    }
    co_return;
}

asio::awaitable<std::size_t> TransferCoordinator::doActiveReadCount() {
    co_return activeReads_.size();
}

asio::awaitable<std::size_t> TransferCoordinator::doActiveWriteCount() {
    co_return activeWrites_.size();
}

asio::awaitable<void> TransferCoordinator::doReleaseRead(std::string token) {
    assertIsolated();
    if (auto node = activeReads_.extract(token)) {
        storage_->remove(node.mapped().fileName);
    }
    co_return;
}

asio::awaitable<void> TransferCoordinator::doReleaseWrite(std::string token) {
    assertIsolated();
    if (auto node = activeWrites_.extract(token)) {
        storage_->remove(node.mapped().fileName);
    }
    co_return;
}

asio::awaitable<Bytes> TransferCoordinator::send(std::uint16_t code, SharedBytes body) {
    if (body.size() > service::kMaxRelayBodyBytes) {
        throw TransferError::transport(UsbMuxRelayError::payloadTooLarge);
    }
    RelayAnswer answer = co_await relay_->send(code, body);
    const auto lost = [](std::int64_t status) {
        return status == static_cast<std::int64_t>(UsbMuxRelayError::notConnected) ||
               status == static_cast<std::int64_t>(UsbMuxRelayError::transportFailed);
    };
    if (lost(answer.status)) {
        co_await relay_->reestablish();
        answer = co_await relay_->send(code, std::move(body));
    }
    if (answer.status == static_cast<std::int64_t>(UsbMuxRelayError::ok)) {
        co_return std::move(answer.data);
    }
    if (answer.status == static_cast<std::int64_t>(UsbMuxRelayError::deviceStatus)) {
        // The body names the status when the app sent a rejection record; the answer
        // code does otherwise (a read failure carries no body).
        const auto rejection = json::decode<FileIODeviceRejection>(answer.data);
        throw TransferError::rejected(rejection.value_or(FileIODeviceRejection{answer.detail}));
    }
    const auto error = json::enumFromRaw<UsbMuxRelayError>(answer.status);
    throw TransferError::transport(error.value_or(UsbMuxRelayError::internalError));
}

asio::awaitable<void> TransferCoordinator::sendAhead(std::uint16_t code, SharedBytes body,
                                                     runtime::OnceReply<Bytes> reply,
                                                     std::shared_ptr<bool> stopped) {
    assertIsolated();
    if (*stopped) {
        reply.fail(TransferError::transport(UsbMuxRelayError::transportFailed));
        co_return;
    }
    std::exception_ptr failure;
    try {
        Bytes answer = co_await send(code, std::move(body));
        reply.resume(std::move(answer));
        co_return;
    } catch (...) {
        failure = std::current_exception();
    }
    *stopped = true;
    reply.fail(failure);
}

asio::awaitable<SharedFileDescriptor> TransferCoordinator::doFetch(std::string identifier,
                                                                   Uuid sessionID) {
    assertIsolated();
    Benchmark bench;
    Window window(shared_from_this());
    const Uuid transfer = Uuid::random();
    const std::string token = transfer.text();
    const std::string partName = partFileName(transfer);
    const std::string finalName = finalFileName(transfer);
    std::exception_ptr failure;
    std::optional<SharedFileDescriptor> result;
    try {
        // The lookup's source is left at its first case: the fetch asks for attributes.
        const relay::RelayLookupRequest lookup{identifier, {}};
        auto lookupBody = encodeOrFail(lookup);
        const Bytes summaryBody = co_await send(kLookupCode, std::move(*lookupBody));
        const auto summary = decodeOrFail<relay::RelayItemSummary>(summaryBody);
        bench.size = summary.size;

        UniqueFd file;
        try {
            file = storage_->create(partName, summary.size);
        } catch (const SharedFileStorageError&) {
            throw TransferError(Case::ioFailed);
        }
        Progress progress{sink_, sessionID, summary.size};
        std::uint64_t offset = 0;  // the part file holds everything before it
        std::uint64_t next = 0;    // where the next request starts
        while (offset < summary.size) {
            while (!window.full() && next < summary.size) {
                auto request = encodeReadChunkRequest(identifier, next, kChunkSize);
                if (!request) {
                    throw TransferError(Case::encodeFailed);
                }
                const std::uint64_t length =
                    std::min<std::uint64_t>(kChunkSize, summary.size - next);
                window.launch(kReadChunkCode, std::move(*request), next, length);
                next += length;
            }
            // Only the wait for the answer counts: the rest of its round trip overlapped.
            const auto waiting = SteadyClock::now();
            const auto answer = co_await window.next();
            bench.transportMs += millisSince(waiting);
            const Bytes& chunk = answer.body;
            // An empty chunk would never finish the loop, and a long one would write past
            // the size the part file was given: both are replies the item cannot have.
            if (chunk.empty() || chunk.size() > summary.size - offset) {
                throw TransferError(Case::decodeFailed);
            }
            const auto writing = SteadyClock::now();
            if (!writeAllAt(file.get(), chunk, offset)) {
                throw TransferError(Case::ioFailed);
            }
            bench.fileMs += millisSince(writing);
            offset += chunk.size();
            bench.transferred = offset;
            ++bench.chunks;
            progress.advance(offset);
            if (chunk.size() != answer.length) {
                // A short answer: the requests after it asked for the wrong places.
                co_await window.drain();
                next = offset;
            }
        }
        const auto tail = SteadyClock::now();
        if (::fsync(file.get()) != 0) {
            throw TransferError(Case::ioFailed);
        }
        file = UniqueFd();
        try {
            storage_->moveToFinalName(partName, finalName);
        } catch (const SharedFileStorageError&) {
            throw TransferError(Case::ioFailed);
        }
        bench.tailMs = millisSince(tail);
        activeReads_[token] = ActiveTransfer{finalName, now_()};
        progress.finish();
        result = SharedFileDescriptor{token, finalName, summary.size,
                                      summary.contentVersion.value_or(Bytes{}),
                                      summary.metadataVersion.value_or(Bytes{})};
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        co_await window.drain();
        storage_->remove(partName);
        storage_->remove(finalName);
        bench.write("fetchRemoteFile", "writeMs", identifier, false);
        std::rethrow_exception(failure);
    }
    bench.write("fetchRemoteFile", "writeMs", identifier, true);
    co_return std::move(*result);
}

asio::awaitable<relay::RelayItemSummary> TransferCoordinator::doPush(
    FileIOBeginWriteRequest request) {
    assertIsolated();
    Benchmark bench;
    bench.size = request.byteCount;
    Window window(shared_from_this());
    activeWrites_[request.token] = ActiveTransfer{request.sourceFileName, now_()};
    std::exception_ptr failure;
    std::optional<relay::RelayItemSummary> result;
    try {
        UniqueFd file;
        try {
            file = storage_->openSourceFile(request.sourceFileName);
        } catch (const SharedFileStorageError&) {
            throw TransferError(Case::ioFailed);
        }
        // The writer always names a version; an empty one is still checked by the app.
        const RelayTruncateWriteRequest truncate{request.identifier, request.byteCount,
                                                 request.expectedContentVersion};
        auto truncateBody = encodeOrFail(truncate);
        co_await send(kTruncateWriteCode, std::move(*truncateBody));

        Progress progress{sink_, request.sessionID, request.byteCount};
        std::uint64_t offset = 0;  // the app holds everything before it
        std::uint64_t next = 0;    // where the next chunk sent starts
        while (offset < request.byteCount) {
            while (!window.full() && next < request.byteCount) {
                const std::uint64_t piece =
                    std::min<std::uint64_t>(kChunkSize, request.byteCount - next);
                auto header = encodeWriteChunkHeader(request.identifier, next, piece);
                if (!header) {
                    throw TransferError(Case::encodeFailed);
                }
                Bytes body = std::move(*header);
                const std::size_t headerSize = body.size();
                body.resize(headerSize + piece);
                const auto reading = SteadyClock::now();
                // A file shorter than byteCount cannot be pushed as announced.
                const auto got = readUpTo(file.get(), std::span(body).subspan(headerSize), next);
                if (got != piece) {
                    throw TransferError(Case::ioFailed);
                }
                bench.fileMs += millisSince(reading);
                window.launch(kWriteChunkCode, std::move(body), next, piece);
                next += piece;
            }
            const auto waiting = SteadyClock::now();
            const auto answer = co_await window.next();
            bench.transportMs += millisSince(waiting);
            // The app says where the next chunk starts. A reply that does not move forward
            // (or jumps past the end) would loop or leave a gap, so the push stops there.
            const auto reply = decodeOrFail<RelayWriteChunkResponse>(answer.body);
            if (reply.nextOffset <= offset || reply.nextOffset > request.byteCount) {
                throw TransferError(Case::ioFailed);
            }
            bench.transferred += reply.nextOffset - offset;
            offset = reply.nextOffset;
            ++bench.chunks;
            progress.advance(offset);
            if (offset != answer.offset + answer.length) {
                // The chunks sent after this one assumed the app took all of it; they only
                // wrote the file's own bytes at their own offsets, so the push goes on from
                // where the app said, as if they had not been sent.
                co_await window.drain();
                next = offset;
            }
        }
        file = UniqueFd();
        const auto tail = SteadyClock::now();
        const RelayCommitWriteRequest commit{request.identifier};
        auto commitBody = encodeOrFail(commit);
        const Bytes summaryBody = co_await send(kCommitWriteCode, std::move(*commitBody));
        result = decodeOrFail<relay::RelayItemSummary>(summaryBody);
        bench.tailMs = millisSince(tail);
        progress.finish();
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        co_await window.drain();
        bench.write("pushSharedFile", "readMs", request.identifier, false);
        std::rethrow_exception(failure);
    }
    bench.write("pushSharedFile", "readMs", request.identifier, true);
    co_return std::move(*result);
}

}  // namespace skiff::transfer
