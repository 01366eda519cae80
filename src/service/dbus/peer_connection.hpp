#pragma once
// A bus peer as the core sees it: one ClientConnection per unique name, with a proxy to
// the object that peer exports.

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "service/bridge_protocols.hpp"
#include "service/dbus/bus_calls.hpp"
#include "service/dbus/glue/bridgeclient_proxy.h"

namespace skiff::service::dbus {

using ClientGlue = ProxyGlue<Mox::Harbor::BridgeClient_proxy>;

class PeerConnection final : public ClientConnection {
public:
    PeerConnection(std::shared_ptr<BusLoop> loop, std::string peer);

    const std::string& peer() const { return peer_; }

    void setExportedObject(std::shared_ptr<HarborBridgeHostProtocol> host) override;
    HarborBridgeHostProtocol* exportedObject() const override;
    void setInvalidationHandler(std::function<void()> handler) override;
    std::shared_ptr<HarborBridgeClientProtocol> remoteObjectProxy(
        std::function<void(const std::string& error)> errorHandler) override;

    // The handler, handed over once: a second call returns an empty function.
    std::function<void()> takeInvalidationHandler();

private:
    std::string peer_;
    std::shared_ptr<ProxyLink<ClientGlue>> link_;
    mutable std::mutex mutex_;
    std::shared_ptr<HarborBridgeHostProtocol> host_;
    std::function<void()> invalidationHandler_;
};

}  // namespace skiff::service::dbus
