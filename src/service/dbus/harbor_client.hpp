#pragma once
// A client of skiffd (skiffctl, tests, benchmarks): serves a HarborBridgeClientProtocol at
// the client object path, calls the host methods (blocking with a time-out, or with
// callbacks), hands the service shared buffers for bulk bytes, and observes the service's
// signals without registering a role.
//
// Threads: the client runs its bus on one thread of its own. The exported object's
// methods, callbacks and observer functions run there; blocking calls must come from
// other threads.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "common/bridge_protocols.hpp"
#include "common/bytes.hpp"
#include "service/dbus/bus_error.hpp"

namespace skiff::service::dbus {

class HarborClient {
public:
    struct RelayReply {
        Bytes response;
        std::int64_t status = 0;
        std::int64_t code = 0;
    };
    struct SharedRelayReply {
        std::uint64_t replyLength = 0;
        std::int64_t status = 0;
        std::int64_t code = 0;
    };
    struct FileIOReply {
        Bytes response;
        std::int64_t status = 0;
    };
    // What an observer hears; any member may be empty.
    struct Observer {
        std::function<void(std::int64_t message, Bytes param)> notification;
        std::function<void(const std::string& udid, bool attached)> deviceChanged;
        // The holder of a role changed; `replaced` names a client a later one displaced.
        std::function<void(std::int64_t role, const std::string& holder,
                           const std::string& replaced)>
            roleChanged;
        std::function<void(const std::string& text)> volumeNotice;
        // The service took its name on the bus (true) or lost it (false).
        std::function<void(bool present)> servicePresence;
    };

    // Connects to the bus at `busAddress` (the session bus when empty) and, when `exported`
    // is given, serves it. Its methods may reply later from any thread. Throws BusError.
    explicit HarborClient(std::shared_ptr<HarborBridgeClientProtocol> exported = nullptr,
                          const std::string& busAddress = {});
    ~HarborClient();
    HarborClient(const HarborClient&) = delete;
    HarborClient& operator=(const HarborClient&) = delete;

    std::string uniqueName() const;

    // Applies to every call started afterwards (default 25 s).
    void setCallTimeout(std::chrono::milliseconds timeout);

    // Called once if the bus connection is lost (on the client's thread).
    void setLostHandler(std::function<void()> onLost);

    // The host with callbacks: replies and errors arrive on the client's bus thread;
    // a failed call reaches `errorHandler` and never its reply. It shares the bus
    // connection, so the service sees this client leave only once the host is gone too.
    std::shared_ptr<HarborBridgeHostProtocol> host(
        std::function<void(const BusError&)> errorHandler);

    // Subscribes to the service's signals and to its name coming and going; returns once
    // the bus has confirmed, so nothing emitted afterwards is missed. Throws BusError.
    void observe(Observer observer);
    // Whether skiffd holds its name on the bus now.
    bool serviceRunning();
    // The process id of the skiffd holding the name now (the bus's own word for it), or
    // 0 when none does or the bus would not say.
    std::uint32_t serviceProcessId();

    // Blocking calls. They throw BusError on a bus error or when no reply came in time.
    bool registerClient(std::int64_t role);
    std::int64_t getXPCServiceVersion();
    void echo();
    bool ping(std::int64_t value);
    std::uint64_t benchmarkIngest(Bytes data);
    double requestHostToExtThroughput(std::uint64_t chunkSize, std::uint64_t chunkCount);
    double requestExtToHostPing(std::int64_t value);
    double requestExtToHostThroughput(std::uint64_t chunkSize, std::uint64_t chunkCount);
    std::pair<bool, std::string> runUsbMuxSpeedTest();
    RelayReply relayToUsbMux(std::int64_t selector, Bytes param);
    // Our own: the requests sent in order without waiting for each answer; one answer each.
    std::vector<OrderedRelayAnswer> relayToUsbMuxInOrder(std::vector<OrderedRelayRequest> requests);
    FileIOReply requestFileIO(std::int64_t operation, Bytes param);
    void filesystemDidUnmount();
    bool shutdown();
    // The ServiceStatus JSON body.
    Bytes getStatus();
    // Whether the volume was mounted (unmounted), and the reason when not.
    std::pair<bool, std::string> mountVolume();
    std::pair<bool, std::string> unmountVolume(bool force);
    // One-way, never waits: a line for the volume's user, shown by every observer
    // (skiffctl watch). Failures are only logged.
    void postVolumeNotice(const std::string& text);

    // The shared-memory path. The descriptor is only lent: the service maps its own copy.
    std::uint32_t registerSharedBuffer(int fd);
    void releaseSharedBuffer(std::uint32_t bufferId);
    SharedRelayReply relayToUsbMuxShared(std::int64_t selector, std::uint32_t bufferId,
                                         std::uint64_t paramOffset, std::uint64_t paramLength,
                                         std::uint64_t replyOffset, std::uint64_t replyCapacity);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace skiff::service::dbus
