#include "service/harbor_xpc.hpp"

#include <chrono>
#include <cstdio>
#include <optional>
#include <stdexcept>
#include <utility>

#include "common/check.hpp"
#include "common/once_reply.hpp"
#include "common/task.hpp"
#include "common/version.hpp"
#include "relay/relay_schema.hpp"
#include "service/host_volume.hpp"
#include "service/service_status.hpp"
#include "transfer/file_io_records.hpp"
#include "transfer/transfer_coordinator.hpp"

namespace skiff::service {

namespace {

using relay::UsbMuxRelayError;

using RelayReplyFn = std::function<void(Bytes, std::int64_t, std::int64_t)>;

constexpr auto kFileProvider = static_cast<std::int64_t>(HarborBridgeClientRole::fileProvider);
constexpr auto kDesktopApp = static_cast<std::int64_t>(HarborBridgeClientRole::desktopApp);

constexpr std::int64_t status(UsbMuxRelayError e) {
    return static_cast<std::int64_t>(e);
}

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

std::string rateText(double mib, double mbit) {
    char text[96];
    std::snprintf(text, sizeof text, "%.2f MiB/s (%.1f Mbit/s)", mib, mbit);
    return text;
}

// Sends the host-to-extension chunks one at a time, each from within the previous reply.
// It stops once the caller has left: nobody is waiting for the figure.
struct ChunkSender : std::enable_shared_from_this<ChunkSender> {
    std::weak_ptr<const Harbor_XPC> caller;
    std::shared_ptr<HarborBridgeClientProtocol> extension;
    Bytes chunk;
    std::uint64_t chunkCount = 0;
    std::uint64_t sent = 0;
    std::chrono::steady_clock::time_point start;
    runtime::OnceReply<double> once;

    void sendNext() {
        extension->benchmarkIngest(chunk, [self = shared_from_this()](std::uint64_t) {
            if (self->caller.expired()) {
                log::xpc().info("host-to-extension measurement stopped: its caller left");
                self->once.fail(std::runtime_error("the caller left"));
                return;
            }
            if (++self->sent < self->chunkCount) {
                self->sendNext();
            } else {
                self->once.resume(secondsSince(self->start));
            }
        });
    }
};

// A call into a client on behalf of a waiting host call. `use` makes the call with the
// role's client (a proxy it may keep) and a guard that answers the caller once: with the client's
// answer or, when there is no such client or the call fails (the client let the deadline pass or
// left, or the bus refused the call), with `failed`. A failed call's reply never comes, so waiting
// on would only leave the caller to its own time-out.
using ClientProxy = std::shared_ptr<HarborBridgeClientProtocol>;

template <class T, class Use>
void forwardToClient(BridgeCore& core, std::int64_t role, std::function<void(T)> reply, T failed,
                     const char* what, Use&& use) {
    runtime::OnceReply<T> once(reply, [reply, failed](std::exception_ptr) { reply(failed); });
    auto client =
        core.hub().clientProxy(role, [once, failed, what](const ClientCallFailure& failure) {
            if (failure.deadlinePassed) {
                log::xpc().error("%{public}s: the client did not answer in time", what);
            }
            once.resume(failed);
        });
    if (!client) {
        once.resume(failed);
        return;
    }
    use(std::move(client), once);
}

void checkChunkSize(std::uint64_t chunkSize) {
    if (chunkSize > kMaxMeasurementChunkBytes) {
        throw InvalidArgs("chunk size " + std::to_string(chunkSize) + " above the bus's " +
                          std::to_string(kMaxMeasurementChunkBytes) + " bytes");
    }
}

asio::awaitable<void> speedTestTask(std::shared_ptr<BridgeCore> core,
                                    std::function<void(bool, std::string)> reply) {
    auto usbMux = core->usbMux();
    auto bridge = core->relayBridge();
    if (!usbMux) {
        reply(false, "USB layer unavailable");
        co_return;
    }
    // The round opens its own connection under the relay's tunnel key; the relay keeps
    // off the tunnel until the round is over.
    if (bridge) {
        co_await bridge->beginExclusiveUse(kCompanionAppPort);
    }
    bool ok = false;
    std::string text;
    try {
        text = speedTestReport(
            co_await usbMux->runSpeedTestRound(kCompanionAppPort, kSpeedTestPayloadBytes));
        ok = true;
    } catch (const SpeedTestError& e) {
        switch (e.kind()) {
            case SpeedTestError::Kind::noDevices:
                text = "No devices connected";
                break;
            case SpeedTestError::Kind::connectionFailed:
                text = "Connection failed — ensure iPhone app is listening on port " +
                       std::to_string(kCompanionAppPort);
                break;
            case SpeedTestError::Kind::other:
                text = e.what();
                break;
        }
    } catch (const std::exception& e) {
        text = e.what();
    }
    if (bridge) {
        co_await bridge->endExclusiveUse(kCompanionAppPort);
    }
    reply(ok, std::move(text));
}

// Why a client's relay is refused before it reaches the phone, checked in this order.
std::optional<UsbMuxRelayError> relayRefusal(bool registered, std::size_t bodySize, bool attached) {
    if (!registered) {
        return UsbMuxRelayError::notConnected;
    }
    if (bodySize > kMaxRelayBodyBytes) {
        return UsbMuxRelayError::payloadTooLarge;
    }
    if (!attached) {
        return UsbMuxRelayError::transportFailed;
    }
    return std::nullopt;
}

// The selector is the request's frame code; a client outside that range is broken, and
// told so rather than trusted.
void checkSelector(std::int64_t selector) {
    if (selector < 0 || selector > 0xFFFF) {
        throw InvalidArgs("relay selector " + std::to_string(selector) +
                          " outside the frame code range 0-65535");
    }
}

// Started on the relay's strand, a relay runs inline: no hand-over to the strand and back
// to the pool on the way of every look-up.
asio::any_io_executor relayExecutor(BridgeCore& core) {
    const auto& bridge = core.relayBridge();
    return bridge ? asio::any_io_executor(bridge->strand()) : core.executor();
}

asio::awaitable<void> relayTask(std::shared_ptr<BridgeCore> core, std::uint16_t code,
                                SharedBytes param, RelayReplyFn reply) {
    // The phone may have gone since the entry looked.
    if (!core->hub().usbMuxConnection()) {
        reply({}, status(UsbMuxRelayError::transportFailed), 0);
        co_return;
    }
    auto bridge = core->relayBridge();
    if (!bridge) {
        reply({}, status(UsbMuxRelayError::notConnected), 0);
        co_return;
    }
    auto result = co_await bridge->relayForClient(code, std::move(param));
    reply(std::move(result.data), result.status, result.detail);
}

using OrderedReplyFn = std::function<void(std::vector<OrderedRelayAnswer>)>;

// The answers of requests refused before the relay carry their status already; the others
// go to the app together.
asio::awaitable<void> orderedRelayTask(std::shared_ptr<BridgeCore> core,
                                       std::vector<std::pair<std::uint16_t, SharedBytes>> sent,
                                       std::vector<std::size_t> positions,
                                       std::vector<OrderedRelayAnswer> answers,
                                       OrderedReplyFn reply) {
    auto bridge = core->relayBridge();
    if (!core->hub().usbMuxConnection() || !bridge) {
        for (const auto i : positions) {
            answers[i].status = status(UsbMuxRelayError::transportFailed);
        }
        reply(std::move(answers));
        co_return;
    }
    auto replies = co_await bridge->relayInOrderForClient(std::move(sent));
    for (std::size_t k = 0; k < replies.size(); ++k) {
        answers[positions[k]] = {std::move(replies[k].data), replies[k].status, replies[k].detail};
    }
    reply(std::move(answers));
}

using FileIOReplyFn = std::function<void(Bytes, std::int64_t)>;
using transfer::FileIOBridgeError;

void replyFileIOError(const FileIOReplyFn& reply, FileIOBridgeError error) {
    reply({}, static_cast<std::int64_t>(error));
}

// Answers a failed transfer with empty data and its status, a phone's refusal included.
// Anything but a TransferError is a failure of the service's own side, reported as the
// container's.
void replyFileIOFailure(const FileIOReplyFn& reply, std::exception_ptr error) {
    auto status = FileIOBridgeError::storageFailed;
    try {
        std::rethrow_exception(error);
    } catch (const transfer::TransferError& e) {
        status = transfer::bridgeErrorFor(e);
    } catch (...) {
    }
    replyFileIOError(reply, status);
}

template <class Record>
void replyFileIORecord(const FileIOReplyFn& reply, const Record& record) {
    if (auto body = json::encode(record)) {
        reply(std::move(*body), static_cast<std::int64_t>(FileIOBridgeError::ok));
    } else {
        replyFileIOError(reply, FileIOBridgeError::encodeFailed);
    }
}

asio::awaitable<void> beginReadTask(std::shared_ptr<transfer::TransferCoordinator> transfers,
                                    transfer::FileIOBeginReadRequest request, FileIOReplyFn reply) {
    std::exception_ptr error;
    try {
        const auto descriptor =
            co_await transfers->fetchRemoteFile(request.identifier, request.sessionID);
        replyFileIORecord(reply, descriptor);
    } catch (...) {
        error = std::current_exception();
    }
    if (error) {
        replyFileIOFailure(reply, error);
    }
}

// A successful push answers with the item's summary after the commit, so the extension
// learns the new content version without another look-up.
asio::awaitable<void> beginWriteTask(std::shared_ptr<transfer::TransferCoordinator> transfers,
                                     transfer::FileIOBeginWriteRequest request,
                                     FileIOReplyFn reply) {
    std::exception_ptr error;
    try {
        const auto summary = co_await transfers->pushSharedFile(std::move(request));
        replyFileIORecord(reply, summary);
    } catch (...) {
        error = std::current_exception();
    }
    if (error) {
        replyFileIOFailure(reply, error);
    }
}

asio::awaitable<void> endReadTask(std::shared_ptr<transfer::TransferCoordinator> transfers,
                                  std::string token, FileIOReplyFn reply) {
    co_await transfers->releaseRead(std::move(token));
    reply({}, static_cast<std::int64_t>(FileIOBridgeError::ok));
}

asio::awaitable<void> endWriteTask(std::shared_ptr<transfer::TransferCoordinator> transfers,
                                   std::string token, FileIOReplyFn reply) {
    co_await transfers->releaseWrite(std::move(token));
    reply({}, static_cast<std::int64_t>(FileIOBridgeError::ok));
}

}  // namespace

std::string speedTestReport(const SpeedTestMeasurement& round) {
    char rtt[64];
    std::snprintf(rtt, sizeof rtt, "%.2f ms", round.pingMs);
    return "UDID: " + (round.deviceUDID.empty() ? std::string("unknown") : round.deviceUDID) +
           "\nRTT: " + rtt +
           "\nDownload: " + rateText(round.downloadMiBPerSecond, round.downloadMbitPerSecond) +
           "\nUpload: " + rateText(round.uploadMiBPerSecond, round.uploadMbitPerSecond);
}

Harbor_XPC::Harbor_XPC(BridgeCore& core) : core_(core) {}

void Harbor_XPC::registerClient(std::int64_t role, std::function<void(bool)> reply) {
    reply(core_.hub().registerClient(this, role));
}

void Harbor_XPC::getXPCServiceVersion(std::function<void(std::int64_t)> reply) {
    reply(kBuildNumber);
}

void Harbor_XPC::echo(std::function<void()> reply) {
    reply();
}

void Harbor_XPC::ping(std::int64_t value, std::function<void(bool)> reply) {
    const auto callerRole = core_.hub().roleOfHost(this);
    if (!callerRole) {
        reply(false);
        return;
    }
    if (*callerRole == value) {
        reply(true);
        return;
    }
    forwardToClient<bool>(core_, value, std::move(reply), false, "ping",
                          [](ClientProxy target, runtime::OnceReply<bool> once) {
                              target->echo([once] { once.resume(true); });
                          });
}

void Harbor_XPC::benchmarkIngest(Bytes data, std::function<void(std::uint64_t)> reply) {
    reply(data.size());
}

void Harbor_XPC::requestHostToExtThroughput(std::uint64_t chunkSize, std::uint64_t chunkCount,
                                            std::function<void(double)> reply) {
    checkChunkSize(chunkSize);
    const auto start = std::chrono::steady_clock::now();
    forwardToClient<double>(core_, kFileProvider, std::move(reply), -1.0, "host-to-extension",
                            [&](ClientProxy extension, runtime::OnceReply<double> once) {
                                if (chunkCount == 0) {
                                    once.resume(secondsSince(start));
                                    return;
                                }
                                auto sender = std::make_shared<ChunkSender>();
                                sender->caller = weak_from_this();
                                sender->extension = std::move(extension);
                                sender->chunk.assign(chunkSize, 0);
                                sender->chunkCount = chunkCount;
                                sender->start = start;
                                sender->once = once;
                                sender->sendNext();
                            });
}

void Harbor_XPC::requestExtToHostPing(std::int64_t value, std::function<void(double)> reply) {
    forwardToClient<double>(core_, kFileProvider, std::move(reply), -1.0, "extension ping",
                            [value](ClientProxy extension, runtime::OnceReply<double> once) {
                                extension->runExtToHostPing(value,
                                                            [once](double s) { once.resume(s); });
                            });
}

void Harbor_XPC::requestExtToHostThroughput(std::uint64_t chunkSize, std::uint64_t chunkCount,
                                            std::function<void(double)> reply) {
    checkChunkSize(chunkSize);
    forwardToClient<double>(core_, kFileProvider, std::move(reply), -1.0, "extension-to-host",
                            [=](ClientProxy extension, runtime::OnceReply<double> once) {
                                extension->benchmarkSendChunks(
                                    chunkSize, chunkCount, [once](double s) { once.resume(s); });
                            });
}

void Harbor_XPC::runUsbMuxSpeedTest(std::function<void(bool, std::string)> reply) {
    runtime::spawnTask(core_.executor(), core_.shared_from_this(), &speedTestTask,
                       std::move(reply));
}

void Harbor_XPC::relayToUsbMux(std::int64_t selector, SharedBytes param, RelayReplyFn reply) {
    const auto role = core_.hub().roleOfHost(this);
    if (const auto refusal =
            relayRefusal(role == kFileProvider || role == kDesktopApp, param.size(),
                         core_.hub().usbMuxConnection().has_value())) {
        reply({}, status(*refusal), 0);
        return;
    }
    checkSelector(selector);
    runtime::spawnTask(relayExecutor(core_), core_.shared_from_this(), &relayTask,
                       static_cast<std::uint16_t>(selector), std::move(param), std::move(reply));
}

void Harbor_XPC::relayToUsbMuxInOrder(std::vector<OrderedRelayRequest> requests,
                                      OrderedReplyFn reply) {
    if (requests.size() > kMaxOrderedRelays) {
        throw InvalidArgs("an ordered relay carries at most " + std::to_string(kMaxOrderedRelays) +
                          " requests, not " + std::to_string(requests.size()));
    }
    for (const auto& request : requests) {
        checkSelector(request.selector);
    }
    std::vector<OrderedRelayAnswer> answers(requests.size());
    const auto role = core_.hub().roleOfHost(this);
    const bool registered = role == kFileProvider || role == kDesktopApp;
    const bool attached = core_.hub().usbMuxConnection().has_value();
    std::vector<std::pair<std::uint16_t, SharedBytes>> sent;
    std::vector<std::size_t> positions;
    for (std::size_t i = 0; i < requests.size(); ++i) {
        if (const auto refusal = relayRefusal(registered, requests[i].param.size(), attached)) {
            answers[i].status = status(*refusal);
        } else {
            sent.emplace_back(static_cast<std::uint16_t>(requests[i].selector),
                              SharedBytes(std::move(requests[i].param)));
            positions.push_back(i);
        }
    }
    if (sent.empty()) {
        reply(std::move(answers));
        return;
    }
    runtime::spawnTask(relayExecutor(core_), core_.shared_from_this(), &orderedRelayTask,
                       std::move(sent), std::move(positions), std::move(answers), std::move(reply));
}

void Harbor_XPC::requestFileIO(std::int64_t operation, Bytes param,
                               std::function<void(Bytes, std::int64_t)> reply) {
    const auto op = transfer::fileIOOperationFromRaw(operation);
    if (!op) {
        throw InvalidArgs("file-IO operation " + std::to_string(operation) + " is none of 0-3");
    }
    const auto role = core_.hub().roleOfHost(this);
    if (role != kFileProvider && role != kDesktopApp) {
        replyFileIOError(reply, FileIOBridgeError::notRegistered);
        return;
    }
    auto transfers = core_.transfers();
    if (!transfers) {
        throw NotSupported("file transfers are not available in this build");
    }
    const auto& executor = core_.executor();
    using transfer::FileIOOperation;
    switch (*op) {
        case FileIOOperation::beginRead:
        case FileIOOperation::beginWrite: {
            const bool read = *op == FileIOOperation::beginRead;
            auto readRequest = json::decode<transfer::FileIOBeginReadRequest>(param);
            auto writeRequest = json::decode<transfer::FileIOBeginWriteRequest>(param);
            if (read ? !readRequest : !writeRequest) {
                replyFileIOError(reply, FileIOBridgeError::decodeFailed);
                return;
            }
            if (!core_.hub().usbMuxConnection()) {
                replyFileIOError(reply, FileIOBridgeError::noDevice);
                return;
            }
            if (read) {
                runtime::spawnTask(executor, std::move(transfers), &beginReadTask,
                                   std::move(*readRequest), std::move(reply));
            } else {
                runtime::spawnTask(executor, std::move(transfers), &beginWriteTask,
                                   std::move(*writeRequest), std::move(reply));
            }
            return;
        }
        case FileIOOperation::endRead: {
            auto request = json::decode<transfer::FileIOEndReadRequest>(param);
            if (!request) {
                replyFileIOError(reply, FileIOBridgeError::decodeFailed);
                return;
            }
            runtime::spawnTask(executor, std::move(transfers), &endReadTask,
                               std::move(request->token), std::move(reply));
            return;
        }
        case FileIOOperation::endWrite: {
            auto request = json::decode<transfer::FileIOEndWriteRequest>(param);
            if (!request) {
                replyFileIOError(reply, FileIOBridgeError::decodeFailed);
                return;
            }
            runtime::spawnTask(executor, std::move(transfers), &endWriteTask,
                               std::move(request->token), std::move(reply));
            return;
        }
    }
}

void Harbor_XPC::filesystemDidUnmount() {
    runtime::spawnTask(core_.executor(), core_.shared_from_this(), &unmountNoticeTask);
}

void Harbor_XPC::shutdown(std::function<void(bool)> reply) {
    runtime::spawnTask(core_.executor(), core_.shared_from_this(), &shutdownTask, std::move(reply));
}

void Harbor_XPC::mountVolume(std::function<void(bool, std::string)> reply) {
    if (!core_.volumeControl()) {
        throw NotSupported("the volume is not available in this build");
    }
    runtime::spawnTask(core_.executor(), core_.shared_from_this(), &mountTask, std::move(reply));
}

void Harbor_XPC::unmountVolume(bool force, std::function<void(bool, std::string)> reply) {
    if (!core_.volumeControl()) {
        throw NotSupported("the volume is not available in this build");
    }
    runtime::spawnTask(core_.executor(), core_.shared_from_this(), &unmountTask, force,
                       std::move(reply));
}

void Harbor_XPC::getStatus(std::function<void(Bytes)> reply) {
    ServiceStatus status;
    status.version = kBuildNumber;
    status.attachedDevices = core_.hub().attachedDevices();
    status.fileProviderRegistered = core_.hub().hasClient(kFileProvider);
    status.fileProviderReplaced = core_.hub().fileProviderDisplaced();
    // Device names come from usbmuxd; one that is not UTF-8 cannot be encoded.
    reply(json::encode(status).value_or(Bytes{}));
}

void Harbor_XPC::postVolumeNotice(std::string text) {
    core_.hub().postVolumeNotice(text);
}

}  // namespace skiff::service
