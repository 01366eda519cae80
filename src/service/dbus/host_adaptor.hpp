#pragma once
// The host object on the bus. Every call is routed to the host object of the calling
// peer's connection; a peer seen for the first time is put to the listener delegate.

#include <map>
#include <memory>
#include <set>
#include <string>

#include "service/bridge_protocols.hpp"
#include "service/dbus/bus_loop.hpp"
#include "service/dbus/glue/bridgehost_adaptor.h"
#include "service/dbus/peer_connection.hpp"

namespace skiff::service::dbus {

// The peers that have called us, by unique name. Used on the loop thread only.
class PeerTable {
public:
    PeerTable(std::shared_ptr<BusLoop> loop, std::shared_ptr<ListenerDelegate> delegate);

    // The caller's connection, accepted now if it is new; null when the delegate refused it.
    std::shared_ptr<PeerConnection> connectionFor(const std::string& peer);

    // The peer's unique name has lost its owner: invalidate and forget its connection.
    void peerGone(const std::string& peer);

    // Forgets every peer and drops its handler without calling it (the service is going away).
    void clear();

private:
    std::shared_ptr<BusLoop> loop_;
    std::shared_ptr<ListenerDelegate> delegate_;
    std::map<std::string, std::shared_ptr<PeerConnection>> peers_;
    std::set<std::string> refused_;
};

class HostAdaptor final : public sdbus::AdaptorInterfaces<Mox::Harbor::BridgeHost_adaptor> {
public:
    HostAdaptor(std::shared_ptr<BusLoop> loop, PeerTable& peers);
    ~HostAdaptor();

private:
    template <typename... R, typename Call>
    void dispatch(sdbus::Result<R...>&& result, Call&& call);

    void RegisterClient(sdbus::Result<bool>&& result, int64_t role) override;
    void GetXPCServiceVersion(sdbus::Result<int64_t>&& result) override;
    void Echo(sdbus::Result<>&& result) override;
    void Ping(sdbus::Result<bool>&& result, int64_t value) override;
    void BenchmarkIngest(sdbus::Result<uint64_t>&& result, std::vector<uint8_t> data) override;
    void RequestHostToExtThroughput(sdbus::Result<double>&& result, uint64_t chunkSize,
                                    uint64_t chunkCount) override;
    void RequestExtToHostPing(sdbus::Result<double>&& result, int64_t value) override;
    void RequestExtToHostThroughput(sdbus::Result<double>&& result, uint64_t chunkSize,
                                    uint64_t chunkCount) override;
    void RunUsbMuxSpeedTest(sdbus::Result<bool, std::string>&& result) override;
    void RelayToUsbMux(sdbus::Result<std::vector<uint8_t>, int64_t, int64_t>&& result,
                       int64_t selector, std::vector<uint8_t> param) override;
    void RequestFileIO(sdbus::Result<std::vector<uint8_t>, int64_t>&& result, int64_t operation,
                       std::vector<uint8_t> param) override;
    void FilesystemDidUnmount() override;
    void Shutdown(sdbus::Result<bool>&& result) override;

    std::string caller();

    std::shared_ptr<BusLoop> loop_;
    PeerTable& peers_;
};

}  // namespace skiff::service::dbus
