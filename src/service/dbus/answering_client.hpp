#pragma once
// The client object skiffctl and skiff-fs export: it answers Echo and the service's
// measurement calls (ingest, send chunks, ping back), so the measurements work with no
// real extension; every notification is handed to a sink (or dropped when there is none).
//
// Threads: the service's calls arrive on the bus client's thread; replies may come from any
// thread. The host factory may be set and reset from any thread.

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

#include "common/bridge_protocols.hpp"

namespace skiff::service::dbus {

class AnsweringClient final : public HarborBridgeClientProtocol {
public:
    using NotificationSink = std::function<void(std::int64_t message, Bytes param)>;
    // Makes a host proxy whose failed calls reach the given handler.
    using HostFactory =
        std::function<std::shared_ptr<HarborBridgeHostProtocol>(std::function<void()> onError)>;

    explicit AnsweringClient(NotificationSink sink = nullptr);

    // Until set (and after reset with nullptr), calls that need the host reply -1.0.
    void setHostFactory(HostFactory factory);

    void echo(std::function<void()> reply) override;
    void benchmarkIngest(Bytes data, std::function<void(std::uint64_t)> reply) override;
    // Pings the service with `value` as the target role and replies with the seconds the
    // round trip took; -1.0 when the service answers no or the call fails.
    void runExtToHostPing(std::int64_t value, std::function<void(double)> reply) override;
    // Sends chunkCount chunks of chunkSize zero bytes to the service's BenchmarkIngest, one
    // at a time, and replies with the seconds they took; -1.0 when a call fails.
    void benchmarkSendChunks(std::uint64_t chunkSize, std::uint64_t chunkCount,
                             std::function<void(double)> reply) override;
    void notifyClient(std::int64_t message, Bytes param) override;

private:
    std::shared_ptr<HarborBridgeHostProtocol> makeHost(std::function<void()> onError);

    NotificationSink sink_;
    std::mutex mutex_;
    HostFactory hostFactory_;
};

}  // namespace skiff::service::dbus
