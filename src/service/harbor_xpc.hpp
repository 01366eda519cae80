#pragma once
// The host object of one client connection. It keeps no state of its own: its identity
// is how the registry finds the caller's role, and everything else lives in the
// registry and the parts it hands work to. Methods return at once; waiting work runs
// in tasks that call the reply later.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "common/bridge_protocols.hpp"
#include "service/bridge_core.hpp"

namespace skiff::service {

inline constexpr std::uint64_t kSpeedTestPayloadBytes = 0x3000000;

// The largest chunk a measurement may ask for: a D-Bus array holds at most 64 MiB.
inline constexpr std::uint64_t kMaxMeasurementChunkBytes = 64ull * 1024 * 1024;

// Held by shared_ptr (the connection owns it), so that work done for this caller alone can
// watch it through a weak reference and stop once the caller has left.
class Harbor_XPC : public HarborBridgeHostProtocol,
                   public std::enable_shared_from_this<Harbor_XPC> {
public:
    // The core outlives every call made here (the listener delegate that makes this object
    // holds it), so a reference does.
    explicit Harbor_XPC(BridgeCore& core);

    void registerClient(std::int64_t role, std::function<void(bool)> reply) override;
    void getXPCServiceVersion(std::function<void(std::int64_t)> reply) override;
    void echo(std::function<void()> reply) override;
    void ping(std::int64_t value, std::function<void(bool)> reply) override;
    void benchmarkIngest(Bytes data, std::function<void(std::uint64_t)> reply) override;
    void requestHostToExtThroughput(std::uint64_t chunkSize, std::uint64_t chunkCount,
                                    std::function<void(double)> reply) override;
    void requestExtToHostPing(std::int64_t value, std::function<void(double)> reply) override;
    void requestExtToHostThroughput(std::uint64_t chunkSize, std::uint64_t chunkCount,
                                    std::function<void(double)> reply) override;
    void runUsbMuxSpeedTest(std::function<void(bool, std::string)> reply) override;
    void relayToUsbMux(std::int64_t selector, SharedBytes param,
                       std::function<void(Bytes, std::int64_t, std::int64_t)> reply) override;
    void requestFileIO(std::int64_t operation, Bytes param,
                       std::function<void(Bytes, std::int64_t)> reply) override;
    void relayToUsbMuxInOrder(std::vector<OrderedRelayRequest> requests,
                              std::function<void(std::vector<OrderedRelayAnswer>)> reply) override;
    void filesystemDidUnmount() override;
    void shutdown(std::function<void(bool)> reply) override;
    void getStatus(std::function<void(Bytes)> reply) override;
    void mountVolume(std::function<void(bool, std::string)> reply) override;
    void unmountVolume(bool force, std::function<void(bool, std::string)> reply) override;
    void postVolumeNotice(std::string text) override;

private:
    BridgeCore& core_;
};

// The text a client is shown for one speed-test round.
std::string speedTestReport(const SpeedTestMeasurement& round);

}  // namespace skiff::service
