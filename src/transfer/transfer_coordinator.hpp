#pragma once
// TransferCoordinator: moves whole files between the phone and the shared container for
// the file-system extension. A begin-read fetches an item into "transfer_<UUID>.bin" and
// hands its name back; a begin-write pushes a container file to the phone; the end
// requests release what the begins left; a periodic round removes entries older than two
// minutes with their files.
//
// Threads: an Actor. Every table change happens on its strand; relay waits suspend, file
// reads and writes are plain blocking calls on the strand. A transfer keeps
// kChunksInFlight chunk requests in flight, each sent by a task of its own on the strand,
// and takes their answers in the order it sent them; different transfers interleave at
// their co_awaits.
// Memory per transfer: one buffer per chunk in flight (a push's body, shared by its send,
// its one retry and the socket write; a fetch's answer as it arrives) plus, for a fetch, the
// answer being written to its file: at most kChunksInFlight chunks of kChunkSize for a
// push, and kChunksInFlight + 1 for a fetch.
// Ownership: made with std::make_shared (the bodies hold it while they run). It holds the
// relay sender, the storage and the progress sink; the clean-up loop holds the
// coordinator until stopCleanup() or the executor's end.

#include <asio.hpp>
#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "common/actor.hpp"
#include "common/once_reply.hpp"
#include "common/uuid.hpp"
#include "relay/relay_schema.hpp"
#include "transfer/file_io_records.hpp"
#include "transfer/shared_file_storage.hpp"

namespace skiff::transfer {

// The app's answer to one request, as the relay reports it: status is a UsbMuxRelayError
// raw value; for deviceStatus, detail is the RelayDeviceStatus and data the app's body.
struct RelayAnswer {
    std::int64_t status = 0;
    std::int64_t detail = 0;
    Bytes data;
};

// The coordinator's way to the companion app. send() addresses the app's port and marks
// the last contact with the phone whenever a reply arrives; reestablish() drops the tunnel
// so that the next send connects anew. Both are awaited from the coordinator's strand.
// The body is shared, never copied: the retry after a lost tunnel sends the same buffer.
class RelaySender {
public:
    virtual ~RelaySender() = default;
    virtual asio::awaitable<RelayAnswer> send(std::uint16_t code, SharedBytes body) = 0;
    virtual asio::awaitable<void> reestablish() = 0;
};

struct TransferProgress {
    Uuid sessionID;
    std::uint64_t completedBytes = 0;
    std::uint64_t totalBytes = 0;
    std::uint8_t percent = 0;
};

// Where progress goes (the extension, through the notification hub). Called on the
// coordinator's strand; must not block, and its failures are its own.
class ProgressSink {
public:
    virtual ~ProgressSink() = default;
    virtual void fileIOProgress(const TransferProgress& progress) = 0;
};

class TransferError : public std::exception {
public:
    enum class Case { deviceRejected, transport, noDevice, encodeFailed, decodeFailed, ioFailed };

    explicit TransferError(Case c) : case_(c) {}
    static TransferError rejected(relay::RelayDeviceStatus status) {
        return rejected(FileIODeviceRejection{static_cast<std::int64_t>(status)});
    }
    // A status the service does not know counts as an I/O error.
    static TransferError rejected(FileIODeviceRejection rejection) {
        TransferError e(Case::deviceRejected);
        const auto known = json::enumFromRaw<relay::RelayDeviceStatus>(rejection.status);
        e.deviceStatus_ = known.value_or(relay::RelayDeviceStatus::ioError);
        return e;
    }
    static TransferError transport(relay::UsbMuxRelayError error) {
        TransferError e(Case::transport);
        e.transportError_ = error;
        return e;
    }

    Case errorCase() const { return case_; }
    relay::RelayDeviceStatus deviceStatus() const { return deviceStatus_; }
    relay::UsbMuxRelayError transportError() const { return transportError_; }
    const char* what() const noexcept override;

private:
    Case case_;
    relay::RelayDeviceStatus deviceStatus_ = relay::RelayDeviceStatus::ok;
    relay::UsbMuxRelayError transportError_ = relay::UsbMuxRelayError::ok;
};

// The status the extension is answered with for a failed transfer. A reply that does not
// decode is the phone's fault (invalidDeviceReply), not the extension's request
// (decodeFailed); a file that cannot be made, read or written is storageFailed.
FileIOBridgeError bridgeErrorFor(const TransferError& error);

class TransferCoordinator : public runtime::Actor,
                            public std::enable_shared_from_this<TransferCoordinator> {
public:
    using Clock = std::chrono::system_clock;
    using Now = std::function<Clock::time_point()>;

    // Two: the app answers one request at a time, so a second request in flight keeps it
    // busy during the round trip of the first; a third would only queue in the tunnel and
    // hold one more chunk of memory.
    static constexpr std::size_t kChunksInFlight = 2;
    static constexpr std::chrono::seconds kCleanupPeriod{30};
    static constexpr std::chrono::seconds kStaleAge{120};

    // Progress goes to `progress` (null: nowhere), which is built before the coordinator
    // and owns nothing that owns it. now defaults to the system clock; tests pass their own
    // to age entries.
    TransferCoordinator(asio::any_io_executor executor, std::shared_ptr<RelaySender> relay,
                        std::shared_ptr<const SharedFileStorage> storage,
                        std::shared_ptr<ProgressSink> progress, Now now = {});

    // Throw TransferError.
    asio::awaitable<SharedFileDescriptor> fetchRemoteFile(std::string identifier, Uuid sessionID);
    asio::awaitable<relay::RelayItemSummary> pushSharedFile(FileIOBeginWriteRequest request);
    // An unknown token is not an error.
    asio::awaitable<void> releaseRead(std::string token);
    asio::awaitable<void> releaseWrite(std::string token);

    // Starts the periodic clean-up unless it runs already; stopCleanup ends it.
    void startCleanup();
    void stopCleanup();
    // One clean-up round.
    asio::awaitable<void> cleanUp();

    // For tests: how many entries each table holds.
    asio::awaitable<std::size_t> activeReadCount();
    asio::awaitable<std::size_t> activeWriteCount();

private:
    struct ActiveTransfer {
        std::string fileName;
        Clock::time_point createdAt;
    };
    struct Progress;
    class Window;

    asio::awaitable<SharedFileDescriptor> doFetch(std::string identifier, Uuid sessionID);
    asio::awaitable<relay::RelayItemSummary> doPush(FileIOBeginWriteRequest request);
    asio::awaitable<void> doReleaseRead(std::string token);
    asio::awaitable<void> doReleaseWrite(std::string token);
    asio::awaitable<void> doCleanUp();
    asio::awaitable<void> cleanupLoop();
    asio::awaitable<std::size_t> doActiveReadCount();
    asio::awaitable<std::size_t> doActiveWriteCount();

    // The one send step: size check, one retry after re-establishing a lost tunnel.
    // Returns the app's body for an ok answer; throws TransferError otherwise, with
    // deviceRejected for an answer that carries a device status.
    asio::awaitable<Bytes> send(std::uint16_t code, SharedBytes body);
    // One chunk request of a window, run as a task: send() into reply, unless an earlier
    // request of the same window failed (stopped), which it then marks.
    asio::awaitable<void> sendAhead(std::uint16_t code, SharedBytes body,
                                    runtime::OnceReply<Bytes> reply, std::shared_ptr<bool> stopped);

    std::shared_ptr<RelaySender> relay_;
    const std::shared_ptr<ProgressSink> sink_;
    std::shared_ptr<const SharedFileStorage> storage_;
    Now now_;

    // Strand state.
    std::map<std::string, ActiveTransfer> activeReads_;
    std::map<std::string, ActiveTransfer> activeWrites_;
    std::shared_ptr<asio::steady_timer> cleanupTimer_;
    bool cleanupStarted_ = false;
    bool cleanupStopped_ = false;
};

}  // namespace skiff::transfer
