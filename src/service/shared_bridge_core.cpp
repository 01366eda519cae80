// The process's bridge core, wired to the real USB layer, tunnel engine and relay bridge.
#include <memory>
#include <utility>

#include "common/io_runtime.hpp"
#include "relay/tunnel_relay_bridge.hpp"
#include "service/bridge_core.hpp"
#include "service/usbmux_service_link.hpp"
#include "tunnel/tunnel_engine.hpp"

namespace skiff::service {

BridgeCore& BridgeCore::shared() {
    static const std::shared_ptr<BridgeCore> instance = [] {
        auto executor = runtime::IoRuntime::shared().executor();
        relay::PushTargets targets;
        targets.forwardToExtension = [](std::int64_t message, Bytes body) {
            BridgeCore::shared().notifyRole(
                static_cast<std::int64_t>(HarborBridgeClientRole::fileProvider),
                static_cast<BridgeNotifyMessage>(message), std::move(body));
        };
        BridgeCollaborators collaborators;
        collaborators.executor = executor;
        collaborators.usbMux =
            std::make_shared<UsbMuxServiceLink>(usbmuxkit::UsbMuxService::shared());
        collaborators.relayBridge = std::make_shared<relay::TunnelRelayBridge>(
            executor, tunnel::TunnelEngine::shared(), std::make_shared<relay::UsbMuxTunnelOpener>(),
            std::move(targets));
        return std::make_shared<BridgeCore>(std::move(collaborators));
    }();
    return *instance;
}

}  // namespace skiff::service
