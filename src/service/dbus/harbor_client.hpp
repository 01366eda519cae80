#pragma once
// A client of skiffd (skiffctl, tests): serves a HarborBridgeClientProtocol at the client
// object path and calls the host methods, either blocking with a time-out or with callbacks.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "common/bytes.hpp"
#include "service/bridge_protocols.hpp"
#include "service/dbus/bus_error.hpp"

namespace skiff::service::dbus {

class HarborClient {
public:
    struct RelayReply {
        Bytes response;
        std::int64_t status = 0;
        std::int64_t code = 0;
    };
    struct FileIOReply {
        Bytes response;
        std::int64_t status = 0;
    };

    // Connects to the bus at `busAddress` (the session bus when empty) and, when `exported`
    // is given, serves it. Its methods run on the client's bus thread and may reply later
    // from any thread. Throws BusError.
    explicit HarborClient(std::shared_ptr<HarborBridgeClientProtocol> exported = nullptr,
                          const std::string& busAddress = {});
    ~HarborClient();
    HarborClient(const HarborClient&) = delete;
    HarborClient& operator=(const HarborClient&) = delete;

    std::string uniqueName() const;

    // Applies to every call started afterwards (default 25 s).
    void setCallTimeout(std::chrono::milliseconds timeout);

    // The host with callbacks: replies and errors arrive on the client's bus thread;
    // a failed call reaches `errorHandler` and never its reply.
    std::shared_ptr<HarborBridgeHostProtocol> host(
        std::function<void(const BusError&)> errorHandler);

    // Blocking calls. They throw BusError on a bus error or when no reply came in time,
    // and must not be made from a method of the exported object (they would wait on the
    // thread that delivers their reply).
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
    FileIOReply requestFileIO(std::int64_t operation, Bytes param);
    void filesystemDidUnmount();
    bool shutdown();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace skiff::service::dbus
