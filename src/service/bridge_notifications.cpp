// Notifications from the registry to its clients.
#include <utility>

#include "common/json.hpp"
#include "service/bridge_core.hpp"
#include "service/notification_payloads.hpp"

namespace skiff::service {

void BridgeCore::notifyRole(std::int64_t role, BridgeNotifyMessage message, Bytes param) const {
    if (auto proxy = clientProxy(role)) {
        proxy->notifyClient(static_cast<std::int64_t>(message), std::move(param));
    }
}

void BridgeCore::broadcastBridgeState(std::int64_t source, const Lock&) {
    constexpr auto fileProvider = static_cast<std::int64_t>(HarborBridgeClientRole::fileProvider);
    constexpr auto desktopApp = static_cast<std::int64_t>(HarborBridgeClientRole::desktopApp);
    if (source == static_cast<std::int64_t>(HarborBridgeClientRole::usbMux)) {
        const bool connected = usbMuxConnection_.has_value();
        postStateNotification(desktopApp, source, connected);
        postStateNotification(fileProvider, source, connected);
    } else if (source == fileProvider) {
        postStateNotification(desktopApp, source, byRole_.contains(fileProvider));
    }
}

void BridgeCore::postStateNotification(std::int64_t target, std::int64_t source, bool connected) {
    // Sent from the main actor once the registry lock is released; the proxy is looked
    // up then, so a client gone meanwhile gets nothing.
    asio::post(mainActor_, [self = shared_from_this(), target, source, connected] {
        auto body = json::encode(NotifyBridgeStateChangedPayload{source, connected});
        if (body) {
            self->notifyRole(target, BridgeNotifyMessage::bridgeStateChanged, std::move(*body));
        }
    });
}

}  // namespace skiff::service
