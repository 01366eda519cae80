#include "service/dbus/host_adaptor.hpp"

#include <utility>

#include "common/check.hpp"
#include "common/log.hpp"
#include "service/dbus/bus_calls.hpp"
#include "service/dbus/bus_names.hpp"

namespace skiff::service::dbus {

PeerTable::PeerTable(std::shared_ptr<BusLoop> loop, std::shared_ptr<ListenerDelegate> delegate)
    : loop_(std::move(loop)), delegate_(std::move(delegate)) {}

std::shared_ptr<PeerConnection> PeerTable::connectionFor(const std::string& peer) {
    if (auto found = peers_.find(peer); found != peers_.end()) {
        return found->second;
    }
    if (refused_.contains(peer)) {
        return nullptr;
    }
    auto connection = std::make_shared<PeerConnection>(loop_, peer);
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
    if (auto handler = connection->takeInvalidationHandler()) {
        handler();
    }
}

void PeerTable::clear() {
    for (auto& [peer, connection] : peers_) {
        // Handlers usually hold their connection; dropping them breaks that cycle.
        connection->takeInvalidationHandler();
    }
    peers_.clear();
    refused_.clear();
}

HostAdaptor::HostAdaptor(std::shared_ptr<BusLoop> loop, PeerTable& peers)
    : AdaptorInterfaces(loop->connection(), kHostPath), loop_(std::move(loop)), peers_(peers) {
    registerAdaptor();
}

HostAdaptor::~HostAdaptor() {
    unregisterAdaptor();
}

std::string HostAdaptor::caller() {
    const auto* message = getObject().getCurrentlyProcessedMessage();
    return message != nullptr ? message->getSender() : std::string();
}

template <typename... R, typename Call>
void HostAdaptor::dispatch(sdbus::Result<R...>&& result, Call&& call) {
    auto connection = peers_.connectionFor(caller());
    if (!connection) {
        result.returnError(sdbus::Error(kErrorAccessDenied, "connection refused"));
        return;
    }
    answerLater(loop_, std::move(result), [&](std::function<void(R...)> reply) {
        call(*connection->exportedObject(), std::move(reply));
    });
}

void HostAdaptor::RegisterClient(sdbus::Result<bool>&& result, int64_t role) {
    dispatch(std::move(result), [role](HarborBridgeHostProtocol& host, auto reply) {
        host.registerClient(role, std::move(reply));
    });
}

void HostAdaptor::GetXPCServiceVersion(sdbus::Result<int64_t>&& result) {
    dispatch(std::move(result), [](HarborBridgeHostProtocol& host, auto reply) {
        host.getXPCServiceVersion(std::move(reply));
    });
}

void HostAdaptor::Echo(sdbus::Result<>&& result) {
    dispatch(std::move(result),
             [](HarborBridgeHostProtocol& host, auto reply) { host.echo(std::move(reply)); });
}

void HostAdaptor::Ping(sdbus::Result<bool>&& result, int64_t value) {
    dispatch(std::move(result), [value](HarborBridgeHostProtocol& host, auto reply) {
        host.ping(value, std::move(reply));
    });
}

void HostAdaptor::BenchmarkIngest(sdbus::Result<uint64_t>&& result, std::vector<uint8_t> data) {
    dispatch(std::move(result), [&data](HarborBridgeHostProtocol& host, auto reply) {
        host.benchmarkIngest(std::move(data), std::move(reply));
    });
}

void HostAdaptor::RequestHostToExtThroughput(sdbus::Result<double>&& result, uint64_t chunkSize,
                                             uint64_t chunkCount) {
    dispatch(std::move(result), [=](HarborBridgeHostProtocol& host, auto reply) {
        host.requestHostToExtThroughput(chunkSize, chunkCount, std::move(reply));
    });
}

void HostAdaptor::RequestExtToHostPing(sdbus::Result<double>&& result, int64_t value) {
    dispatch(std::move(result), [value](HarborBridgeHostProtocol& host, auto reply) {
        host.requestExtToHostPing(value, std::move(reply));
    });
}

void HostAdaptor::RequestExtToHostThroughput(sdbus::Result<double>&& result, uint64_t chunkSize,
                                             uint64_t chunkCount) {
    dispatch(std::move(result), [=](HarborBridgeHostProtocol& host, auto reply) {
        host.requestExtToHostThroughput(chunkSize, chunkCount, std::move(reply));
    });
}

void HostAdaptor::RunUsbMuxSpeedTest(sdbus::Result<bool, std::string>&& result) {
    dispatch(std::move(result), [](HarborBridgeHostProtocol& host, auto reply) {
        host.runUsbMuxSpeedTest(std::move(reply));
    });
}

void HostAdaptor::RelayToUsbMux(sdbus::Result<std::vector<uint8_t>, int64_t, int64_t>&& result,
                                int64_t selector, std::vector<uint8_t> param) {
    dispatch(std::move(result), [&](HarborBridgeHostProtocol& host, auto reply) {
        host.relayToUsbMux(selector, std::move(param), std::move(reply));
    });
}

void HostAdaptor::RequestFileIO(sdbus::Result<std::vector<uint8_t>, int64_t>&& result,
                                int64_t operation, std::vector<uint8_t> param) {
    dispatch(std::move(result), [&](HarborBridgeHostProtocol& host, auto reply) {
        host.requestFileIO(operation, std::move(param), std::move(reply));
    });
}

void HostAdaptor::FilesystemDidUnmount() {
    auto connection = peers_.connectionFor(caller());
    if (!connection) {
        return;
    }
    try {
        connection->exportedObject()->filesystemDidUnmount();
    } catch (const std::exception& e) {
        // One-way: nobody to answer.
        log::xpc().error("FilesystemDidUnmount failed: %{public}s", e.what());
    }
}

void HostAdaptor::Shutdown(sdbus::Result<bool>&& result) {
    dispatch(std::move(result),
             [](HarborBridgeHostProtocol& host, auto reply) { host.shutdown(std::move(reply)); });
}

}  // namespace skiff::service::dbus
