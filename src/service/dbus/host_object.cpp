#include "service/dbus/host_object.hpp"

#include <algorithm>
#include <cstring>
#include <optional>
#include <span>
#include <tuple>
#include <utility>

#include "common/check.hpp"
#include "common/log.hpp"
#include "service/dbus/bus_calls.hpp"
#include "service/dbus/bus_error.hpp"
#include "service/dbus/bus_message.hpp"
#include "service/dbus/bus_names.hpp"

namespace skiff::service::dbus {

PeerTable::PeerTable(std::shared_ptr<BusConnection> bus, std::shared_ptr<ListenerDelegate> delegate,
                     std::chrono::milliseconds clientDeadline)
    : bus_(std::move(bus)), delegate_(std::move(delegate)), clientDeadline_(clientDeadline) {}

std::shared_ptr<PeerConnection> PeerTable::connectionFor(const std::string& peer) {
    if (auto found = peers_.find(peer); found != peers_.end()) {
        return found->second;
    }
    if (refused_.contains(peer)) {
        return nullptr;
    }
    auto connection = std::make_shared<PeerConnection>(bus_, peer, clientDeadline_);
    if (!delegate_->shouldAcceptNewConnection(connection)) {
        refused_.insert(peer);
        return nullptr;
    }
    if (connection->exportedObject() == nullptr) {
        fatalError("accepted connection has no exported object");
    }
    peers_.emplace(peer, connection);
    return connection;
}

void PeerTable::peerGone(const std::string& peer) {
    refused_.erase(peer);
    auto found = peers_.find(peer);
    if (found == peers_.end()) {
        return;
    }
    auto connection = std::move(found->second);
    peers_.erase(found);
    connection->gone();
}

void PeerTable::clear() {
    for (auto& [peer, connection] : peers_) {
        // Handlers usually hold their connection; dropping them breaks that cycle.
        connection->forget();
    }
    peers_.clear();
    refused_.clear();
}

namespace {

HostObject& hostOf(void* userdata) {
    return *static_cast<HostObject*>(userdata);
}

int refuse(sd_bus_error* error, const char* name, const std::string& why) {
    return sd_bus_error_set(error, name, why.c_str());
}

// The caller's connection, or an error reply when the delegate refused it.
std::shared_ptr<PeerConnection> callerOf(HostObject& self, sd_bus_message* m) {
    const char* sender = sd_bus_message_get_sender(m);
    return self.peers().connectionFor(sender != nullptr ? sender : "");
}

using Host = HarborBridgeHostProtocol;

// The caller's host object and a pending answer tracked with its connection.
CallTarget<Host> hostFor(HostObject& self, sd_bus_message* m) {
    auto connection = callerOf(self, m);
    if (!connection) {
        return {};
    }
    return {connection->exportedObjectShared(), connection->track(m), connection->peer()};
}

template <class Replies, class... A, class Invoke>
int serve(sd_bus_message* m, void* userdata, sd_bus_error* error, Invoke invoke) {
    return MethodCall<Replies, A...>::serve(
        m, error, [&](sd_bus_message* call) { return hostFor(hostOf(userdata), call); }, invoke);
}

int registerClient(sd_bus_message* m, void* u, sd_bus_error* e) {
    return serve<std::tuple<bool>, std::int64_t>(
        m, u, e, [](Host& h, std::int64_t role, auto reply) { h.registerClient(role, reply); });
}

int getXPCServiceVersion(sd_bus_message* m, void* u, sd_bus_error* e) {
    return serve<std::tuple<std::int64_t>>(
        m, u, e, [](Host& h, auto reply) { h.getXPCServiceVersion(reply); });
}

int echo(sd_bus_message* m, void* u, sd_bus_error* e) {
    return serve<std::tuple<>>(m, u, e, [](Host& h, auto reply) { h.echo(reply); });
}

int ping(sd_bus_message* m, void* u, sd_bus_error* e) {
    return serve<std::tuple<bool>, std::int64_t>(
        m, u, e, [](Host& h, std::int64_t value, auto reply) { h.ping(value, reply); });
}

int benchmarkIngest(sd_bus_message* m, void* u, sd_bus_error* e) {
    return serve<std::tuple<std::uint64_t>, Bytes>(m, u, e, [](Host& h, Bytes data, auto reply) {
        h.benchmarkIngest(std::move(data), reply);
    });
}

int requestHostToExtThroughput(sd_bus_message* m, void* u, sd_bus_error* e) {
    return serve<std::tuple<double>, std::uint64_t, std::uint64_t>(
        m, u, e, [](Host& h, std::uint64_t size, std::uint64_t count, auto reply) {
            h.requestHostToExtThroughput(size, count, reply);
        });
}

int requestExtToHostPing(sd_bus_message* m, void* u, sd_bus_error* e) {
    return serve<std::tuple<double>, std::int64_t>(
        m, u, e,
        [](Host& h, std::int64_t value, auto reply) { h.requestExtToHostPing(value, reply); });
}

int requestExtToHostThroughput(sd_bus_message* m, void* u, sd_bus_error* e) {
    return serve<std::tuple<double>, std::uint64_t, std::uint64_t>(
        m, u, e, [](Host& h, std::uint64_t size, std::uint64_t count, auto reply) {
            h.requestExtToHostThroughput(size, count, reply);
        });
}

int runUsbMuxSpeedTest(sd_bus_message* m, void* u, sd_bus_error* e) {
    return serve<std::tuple<bool, std::string>>(
        m, u, e, [](Host& h, auto reply) { h.runUsbMuxSpeedTest(reply); });
}

int relayToUsbMux(sd_bus_message* m, void* u, sd_bus_error* e) {
    return serve<std::tuple<Bytes, std::int64_t, std::int64_t>, std::int64_t, Bytes>(
        m, u, e, [](Host& h, std::int64_t selector, Bytes param, auto reply) {
            h.relayToUsbMux(selector, std::move(param), reply);
        });
}

int relayToUsbMuxInOrder(sd_bus_message* m, void* u, sd_bus_error* e) {
    return serve<std::tuple<std::vector<OrderedRelayAnswer>>, std::vector<OrderedRelayRequest>>(
        m, u, e, [](Host& h, std::vector<OrderedRelayRequest> requests, auto reply) {
            h.relayToUsbMuxInOrder(std::move(requests), reply);
        });
}

int requestFileIO(sd_bus_message* m, void* u, sd_bus_error* e) {
    return serve<std::tuple<Bytes, std::int64_t>, std::int64_t, Bytes>(
        m, u, e, [](Host& h, std::int64_t operation, Bytes param, auto reply) {
            h.requestFileIO(operation, std::move(param), reply);
        });
}

int filesystemDidUnmount(sd_bus_message* m, void* u, sd_bus_error* e) {
    // One-way: the reply, when the caller wants one anyway, only says it was taken.
    return serve<std::tuple<>>(m, u, e, [](Host& h, auto reply) {
        h.filesystemDidUnmount();
        reply();
    });
}

int postVolumeNotice(sd_bus_message* m, void* u, sd_bus_error* e) {
    return serve<std::tuple<>, std::string>(m, u, e, [](Host& h, std::string text, auto reply) {
        h.postVolumeNotice(std::move(text));
        reply();
    });
}

int shutdown(sd_bus_message* m, void* u, sd_bus_error* e) {
    return serve<std::tuple<bool>>(m, u, e, [](Host& h, auto reply) { h.shutdown(reply); });
}

int getStatus(sd_bus_message* m, void* u, sd_bus_error* e) {
    return serve<std::tuple<Bytes>>(m, u, e, [](Host& h, auto reply) { h.getStatus(reply); });
}

int mountVolume(sd_bus_message* m, void* u, sd_bus_error* e) {
    return serve<std::tuple<bool, std::string>>(m, u, e,
                                                [](Host& h, auto reply) { h.mountVolume(reply); });
}

int unmountVolume(sd_bus_message* m, void* u, sd_bus_error* e) {
    return serve<std::tuple<bool, std::string>, bool>(
        m, u, e, [](Host& h, bool force, auto reply) { h.unmountVolume(force, reply); });
}

int registerSharedBuffer(sd_bus_message* m, void* u, sd_bus_error* e) {
    UnixFd fd;
    if (wire::readAll(m, fd) < 0) {
        return refuse(e, kErrorInvalidArgs, "arguments do not match the signature");
    }
    auto connection = callerOf(hostOf(u), m);
    if (!connection) {
        return refuse(e, kErrorAccessDenied, "connection refused");
    }
    auto adopted = SharedMemory::adopt(fd.fd);
    if (!adopted.memory) {
        log::xpc().error("shared buffer of %{public}s refused: %{public}s",
                         connection->peer().c_str(), adopted.refusal.c_str());
        return refuse(e, kErrorInvalidArgs, "shared buffer refused: " + adopted.refusal);
    }
    const auto id = connection->registerBuffer(std::move(adopted.memory));
    if (id == 0) {
        log::xpc().error("shared buffer of %{public}s refused: too many",
                         connection->peer().c_str());
        return refuse(e, kErrorInvalidArgs, "too many shared buffers");
    }
    return sd_bus_reply_method_return(m, "u", id);
}

int releaseSharedBuffer(sd_bus_message* m, void* u, sd_bus_error* e) {
    std::uint32_t id = 0;
    if (wire::readAll(m, id) < 0) {
        return refuse(e, kErrorInvalidArgs, "arguments do not match the signature");
    }
    auto connection = callerOf(hostOf(u), m);
    if (!connection) {
        return refuse(e, kErrorAccessDenied, "connection refused");
    }
    if (!connection->releaseBuffer(id)) {
        return refuse(e, kErrorInvalidArgs, "no shared buffer " + std::to_string(id));
    }
    return sd_bus_reply_method_return(m, "");
}

int relayToUsbMuxShared(sd_bus_message* m, void* u, sd_bus_error* e) {
    std::int64_t selector = 0;
    std::uint32_t id = 0;
    std::uint64_t paramOffset = 0, paramLength = 0, replyOffset = 0, replyCapacity = 0;
    if (wire::readAll(m, selector, id, paramOffset, paramLength, replyOffset, replyCapacity) < 0) {
        return refuse(e, kErrorInvalidArgs, "arguments do not match the signature");
    }
    auto connection = callerOf(hostOf(u), m);
    if (!connection) {
        return refuse(e, kErrorAccessDenied, "connection refused");
    }
    auto buffer = connection->buffer(id);
    std::string refusal;
    std::optional<std::span<std::uint8_t>> param, answer;
    if (!buffer) {
        refusal = "no shared buffer " + std::to_string(id);
    } else if (!(param = buffer->range(paramOffset, paramLength))) {
        refusal = "request range outside the buffer";
    } else if (replyCapacity < kMaxRelayBodyBytes) {
        refusal = "reply capacity below " + std::to_string(kMaxRelayBodyBytes) + " bytes";
    } else if (!(answer = buffer->range(replyOffset, replyCapacity))) {
        refusal = "reply range outside the buffer";
    }
    if (!refusal.empty()) {
        log::xpc().error("shared relay of %{public}s refused: %{public}s",
                         connection->peer().c_str(), refusal.c_str());
        return refuse(e, kErrorInvalidArgs, refusal);
    }
    // Relayed from where it lies, the mapping held until the send is done: a caller that
    // changes its buffer meanwhile only garbles its own request. One byte past the limit
    // is as refused as any longer body.
    const auto length = std::min<std::size_t>(param->size(), kMaxRelayBodyBytes + 1);
    SharedBytes body(buffer, param->first(length));
    auto host = connection->exportedObjectShared();
    if (!host) {
        return refuse(e, kErrorAccessDenied, "connection closed");
    }
    using Reply = std::function<void(std::uint64_t, std::int64_t, std::int64_t)>;
    answerWith<std::uint64_t, std::int64_t, std::int64_t>(
        connection->track(m), connection->peer(), [&](Reply reply) {
            host->relayToUsbMux(selector, std::move(body),
                                [reply = std::move(reply), buffer, out = *answer](
                                    Bytes data, std::int64_t status, std::int64_t code) {
                                    const auto length = std::min(data.size(), out.size());
                                    std::copy_n(data.begin(), length, out.begin());
                                    reply(length, status, code);
                                });
        });
    return 1;
}

const sd_bus_vtable kHostVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_NAMES("RegisterClient", "x", SD_BUS_PARAM(role), "b", SD_BUS_PARAM(accepted),
                             registerClient, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("GetXPCServiceVersion", "", "", "x", SD_BUS_PARAM(version),
                             getXPCServiceVersion, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("Echo", "", "", "", "", echo, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("Ping", "x", SD_BUS_PARAM(value), "b", SD_BUS_PARAM(ok), ping,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("BenchmarkIngest", "ay", SD_BUS_PARAM(data), "t",
                             SD_BUS_PARAM(byteCount), benchmarkIngest, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES(
        "RequestHostToExtThroughput", "tt", SD_BUS_PARAM(chunkSize) SD_BUS_PARAM(chunkCount), "d",
        SD_BUS_PARAM(result), requestHostToExtThroughput, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("RequestExtToHostPing", "x", SD_BUS_PARAM(value), "d",
                             SD_BUS_PARAM(elapsed), requestExtToHostPing,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES(
        "RequestExtToHostThroughput", "tt", SD_BUS_PARAM(chunkSize) SD_BUS_PARAM(chunkCount), "d",
        SD_BUS_PARAM(result), requestExtToHostThroughput, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("RunUsbMuxSpeedTest", "", "", "bs",
                             SD_BUS_PARAM(ok) SD_BUS_PARAM(text), runUsbMuxSpeedTest,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("RelayToUsbMux", "xay", SD_BUS_PARAM(selector) SD_BUS_PARAM(param),
                             "ayxx", SD_BUS_PARAM(response) SD_BUS_PARAM(status) SD_BUS_PARAM(code),
                             relayToUsbMux, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("RelayToUsbMuxInOrder", "a(xay)", SD_BUS_PARAM(requests), "a(ayxx)",
                             SD_BUS_PARAM(answers), relayToUsbMuxInOrder,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("RequestFileIO", "xay", SD_BUS_PARAM(operation) SD_BUS_PARAM(param),
                             "ayx", SD_BUS_PARAM(response) SD_BUS_PARAM(status), requestFileIO,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("FilesystemDidUnmount", "", "", "", "", filesystemDidUnmount,
                             SD_BUS_VTABLE_UNPRIVILEGED | SD_BUS_VTABLE_METHOD_NO_REPLY),
    SD_BUS_METHOD_WITH_NAMES("PostVolumeNotice", "s", SD_BUS_PARAM(text), "", "", postVolumeNotice,
                             SD_BUS_VTABLE_UNPRIVILEGED | SD_BUS_VTABLE_METHOD_NO_REPLY),
    SD_BUS_METHOD_WITH_NAMES("Shutdown", "", "", "b", SD_BUS_PARAM(ok), shutdown,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("GetStatus", "", "", "ay", SD_BUS_PARAM(status), getStatus,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("MountVolume", "", "", "bs", SD_BUS_PARAM(ok) SD_BUS_PARAM(message),
                             mountVolume, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("UnmountVolume", "b", SD_BUS_PARAM(force), "bs",
                             SD_BUS_PARAM(ok) SD_BUS_PARAM(message), unmountVolume,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("RegisterSharedBuffer", "h", SD_BUS_PARAM(buffer), "u",
                             SD_BUS_PARAM(bufferId), registerSharedBuffer,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("ReleaseSharedBuffer", "u", SD_BUS_PARAM(bufferId), "", "",
                             releaseSharedBuffer, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES(
        "RelayToUsbMuxShared", "xutttt",
        SD_BUS_PARAM(selector) SD_BUS_PARAM(bufferId) SD_BUS_PARAM(paramOffset)
            SD_BUS_PARAM(paramLength) SD_BUS_PARAM(replyOffset) SD_BUS_PARAM(replyCapacity),
        "txx", SD_BUS_PARAM(replyLength) SD_BUS_PARAM(status) SD_BUS_PARAM(code),
        relayToUsbMuxShared, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL_WITH_NAMES("Notification", "xay", SD_BUS_PARAM(message) SD_BUS_PARAM(param), 0),
    SD_BUS_SIGNAL_WITH_NAMES("DeviceChanged", "sb", SD_BUS_PARAM(udid) SD_BUS_PARAM(attached), 0),
    SD_BUS_SIGNAL_WITH_NAMES("RoleChanged", "xss",
                             SD_BUS_PARAM(role) SD_BUS_PARAM(holder) SD_BUS_PARAM(replaced), 0),
    SD_BUS_SIGNAL_WITH_NAMES("VolumeNotice", "s", SD_BUS_PARAM(text), 0),
    SD_BUS_VTABLE_END,
};

}  // namespace

HostObject::HostObject(std::shared_ptr<BusConnection> bus, PeerTable& peers)
    : bus_(std::move(bus)), peers_(peers) {
    const int r =
        sd_bus_add_object_vtable(bus_->bus(), &slot_, kHostPath, kHostInterface, kHostVtable, this);
    if (r < 0) {
        throw BusError(kErrorFailed,
                       std::string("cannot export the host object: ") + std::strerror(-r));
    }
}

HostObject::~HostObject() {
    sd_bus_slot_unref(slot_);
}

}  // namespace skiff::service::dbus
