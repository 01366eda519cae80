#pragma once
// The two protocols between the service and its clients, as the core sees them.
// The core (bridge core, host object, notifications, relay bridge) knows only these
// interfaces; the D-Bus adapter implements them for real peers and unit tests with fakes.
//
// Replies are plain callables that may be invoked later from any thread. A reply that is
// never invoked leaves the client's call pending; the client's own call time-out covers it.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/bridge_messages.hpp"
#include "common/bytes.hpp"

namespace skiff::service {

// Thrown synchronously by a host method that this build does not offer yet; the adapter
// answers the call with the bus error org.freedesktop.DBus.Error.NotSupported.
class NotSupported : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Thrown synchronously by a host method when the caller passed a value no correct client
// sends (a selector outside the frame code range, a chunk size beyond what the bus can
// carry). The adapter answers org.freedesktop.DBus.Error.InvalidArgs; the service goes on.
class InvalidArgs : public std::invalid_argument {
public:
    using std::invalid_argument::invalid_argument;
};

// One request of an ordered relay and its answer: RelayToUsbMux's arguments and results.
struct OrderedRelayRequest {
    std::int64_t selector = 0;
    Bytes param;
};
struct OrderedRelayAnswer {
    Bytes response;
    std::int64_t status = 0;
    std::int64_t code = 0;
};

// An ordered relay carries at most this many requests.
inline constexpr std::size_t kMaxOrderedRelays = 64;

// What the service exports to every client (one object per client connection).
class HarborBridgeHostProtocol {
public:
    virtual ~HarborBridgeHostProtocol() = default;

    virtual void registerClient(std::int64_t role, std::function<void(bool)> reply) = 0;
    virtual void getXPCServiceVersion(std::function<void(std::int64_t)> reply) = 0;
    virtual void echo(std::function<void()> reply) = 0;
    virtual void ping(std::int64_t value, std::function<void(bool)> reply) = 0;
    virtual void benchmarkIngest(Bytes data, std::function<void(std::uint64_t)> reply) = 0;
    virtual void requestHostToExtThroughput(std::uint64_t chunkSize, std::uint64_t chunkCount,
                                            std::function<void(double)> reply) = 0;
    virtual void requestExtToHostPing(std::int64_t value, std::function<void(double)> reply) = 0;
    virtual void requestExtToHostThroughput(std::uint64_t chunkSize, std::uint64_t chunkCount,
                                            std::function<void(double)> reply) = 0;
    virtual void runUsbMuxSpeedTest(std::function<void(bool, std::string)> reply) = 0;
    // The body may be a view of the caller's shared buffer: it is not copied on its way.
    virtual void relayToUsbMux(std::int64_t selector, SharedBytes param,
                               std::function<void(Bytes, std::int64_t, std::int64_t)> reply) = 0;
    virtual void requestFileIO(std::int64_t operation, Bytes param,
                               std::function<void(Bytes, std::int64_t)> reply) = 0;
    // Our own: the requests go to the app in this order, each sent without waiting for the
    // answer of the one before (the app handles one item's requests in arrival order), so
    // a stage, its chunks and its commit cost one round trip. One answer each, in order,
    // each checked and answered as relayToUsbMux would. Not every host offers it.
    virtual void relayToUsbMuxInOrder(std::vector<OrderedRelayRequest> requests,
                                      std::function<void(std::vector<OrderedRelayAnswer>)> reply) {
        (void)requests;
        (void)reply;
        throw NotSupported("ordered relays are not available from this host");
    }
    virtual void filesystemDidUnmount() = 0;
    virtual void shutdown(std::function<void(bool)> reply) = 0;
    // The service's state for people and scripts (a ServiceStatus JSON body). Not every
    // host offers it.
    virtual void getStatus(std::function<void(Bytes)> reply) {
        (void)reply;
        throw NotSupported("status is not available from this host");
    }
    // The desktop's own mount and unmount: whether it worked, and why not.
    virtual void mountVolume(std::function<void(bool, std::string)> reply) = 0;
    virtual void unmountVolume(bool force, std::function<void(bool, std::string)> reply) = 0;
    // One-way: a line the volume wants its user to see (a conflict copy was made, a file
    // was kept aside), passed on to the observers.
    virtual void postVolumeNotice(std::string text) {
        (void)text;
        throw NotSupported("volume notices are not available from this host");
    }
};

// What every client implements; the service calls it through a remote proxy.
class HarborBridgeClientProtocol {
public:
    virtual ~HarborBridgeClientProtocol() = default;

    virtual void echo(std::function<void()> reply) = 0;
    virtual void benchmarkIngest(Bytes data, std::function<void(std::uint64_t)> reply) = 0;
    virtual void runExtToHostPing(std::int64_t value, std::function<void(double)> reply) = 0;
    virtual void benchmarkSendChunks(std::uint64_t chunkSize, std::uint64_t chunkCount,
                                     std::function<void(double)> reply) = 0;
    // One-way: nothing is awaited.
    virtual void notifyClient(std::int64_t message, Bytes param) = 0;
};

// Why a call into a client failed.
struct ClientCallFailure {
    std::string text;
    bool deadlinePassed = false;  // the client did not answer in time (it may still be there)
};

// One accepted client connection (a bus peer). The listener's delegate gives it its host
// object and its invalidation handler when it is accepted.
class ClientConnection {
public:
    virtual ~ClientConnection() = default;

    // The host object serving this connection; its identity is how the registry finds
    // the caller's role.
    virtual void setExportedObject(std::shared_ptr<HarborBridgeHostProtocol> host) = 0;
    virtual HarborBridgeHostProtocol* exportedObject() const = 0;

    // Called once, from the adapter's thread, when the peer has gone away. The adapter
    // drops the handler after calling it, so the handler may hold the connection.
    virtual void setInvalidationHandler(std::function<void()> handler) = 0;

    // A proxy to the client. When a call through it fails (the client went away, the bus
    // refused it, or it did not answer before the adapter's deadline), `errorHandler`
    // receives the failure and that call's reply is never invoked.
    virtual std::shared_ptr<HarborBridgeClientProtocol> remoteObjectProxy(
        std::function<void(const ClientCallFailure& failure)> errorHandler) = 0;

    // The peer's name for people and observers (its unique bus name); may be empty.
    virtual std::string name() const { return {}; }
};

// Decides about every new connection, as the adapter first sees a peer call a host method.
// The delegate sets the exported object and the invalidation handler, then answers whether
// the connection is accepted; the adapter then hands the call to the exported object.
class ListenerDelegate {
public:
    virtual ~ListenerDelegate() = default;
    virtual bool shouldAcceptNewConnection(const std::shared_ptr<ClientConnection>& connection) = 0;
};

// Watches everything the service tells its clients, for observers that hold no role.
// Called from any thread; must not block.
class BridgeObserver {
public:
    virtual ~BridgeObserver() = default;
    // Every notification sent, or that would be sent when no client has the role.
    virtual void notificationPosted(std::int64_t message, const Bytes& param) = 0;
    virtual void deviceChanged(const std::string& udid, bool attached) = 0;
    // The client holding a role changed: `holder` is the new one (empty when the role is
    // free), `replaced` the earlier holder that a later registration displaced (else empty).
    virtual void roleChanged(std::int64_t role, const std::string& holder,
                             const std::string& replaced) {
        (void)role, (void)holder, (void)replaced;
    }
    // A volume's notice for its user (see postVolumeNotice).
    virtual void volumeNotice(const std::string& text) { (void)text; }
};

// Where observers attach: the service's notification hub, which exists before them.
class ObserverHub {
public:
    virtual ~ObserverHub() = default;
    virtual void attach(std::shared_ptr<BridgeObserver> observer) = 0;
    // Once it returns, `observer` is not called again (a call under way has ended).
    virtual void detach(const BridgeObserver* observer) = 0;
};

}  // namespace skiff::service
