#pragma once
// skiff-fs as the service's file provider on the bus: it answers Echo and the
// measurements between the service and the extension. Notifications carry nothing the
// file system needs (item pokes reach it as time changes on the mount), so they are
// dropped.
//
// Threads: the service's calls arrive on the bus client's thread; the measurement calls
// back to the host go through the host proxy set once the bus client exists.

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

#include "common/bridge_protocols.hpp"

namespace skiff::volume {

class ProviderClient final : public service::HarborBridgeClientProtocol {
public:
    // Makes a host proxy whose failed calls reach the given handler instead of the reply.
    using HostFactory = std::function<std::shared_ptr<service::HarborBridgeHostProtocol>(
        std::function<void()> onFailure)>;
    // Until set (and after a reset with nullptr), measurements that need the host answer -1.0.
    void setHostFactory(HostFactory factory);

    void echo(std::function<void()> reply) override;
    void benchmarkIngest(Bytes data, std::function<void(std::uint64_t)> reply) override;
    void runExtToHostPing(std::int64_t value, std::function<void(double)> reply) override;
    void benchmarkSendChunks(std::uint64_t chunkSize, std::uint64_t chunkCount,
                             std::function<void(double)> reply) override;
    void notifyClient(std::int64_t message, Bytes param) override;

private:
    std::shared_ptr<service::HarborBridgeHostProtocol> host(std::function<void()> onFailure);

    std::mutex mutex_;
    HostFactory hostFactory_;
};

}  // namespace skiff::volume
