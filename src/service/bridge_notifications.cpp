// Notifications from the registry to its clients.
#include <utility>

#include "common/json.hpp"
#include "common/notification_payloads.hpp"
#include "common/task.hpp"
#include "service/bridge_core.hpp"

namespace skiff::service {

void BridgeCore::notifyRole(std::int64_t role, BridgeNotifyMessage message, Bytes param) const {
    tellObservers(message, param);
    sendToRole(role, message, std::move(param));
}

void BridgeCore::fileIOProgress(const transfer::TransferProgress& progress) {
    const FileIOProgressPayload payload{progress.sessionID, progress.completedBytes,
                                        progress.totalBytes, progress.percent};
    // A progress step that cannot be encoded is dropped; the transfer goes on.
    if (auto body = json::encode(payload)) {
        notifyRole(static_cast<std::int64_t>(HarborBridgeClientRole::fileProvider),
                   BridgeNotifyMessage::fileIOProgress, std::move(*body));
    }
}

void BridgeCore::forwardToExtension(std::int64_t message, Bytes body) {
    if (auto known = notifyMessageFromRaw(message)) {
        notifyRole(static_cast<std::int64_t>(HarborBridgeClientRole::fileProvider), *known,
                   std::move(body));
    }
}

void BridgeCore::mountControl(Bytes body) {
    if (auto requests = collaborators_.phoneVolume) {
        runtime::spawnTask(collaborators_.executor, std::move(requests),
                           &mount::PhoneVolumeRequests::handleMountControl, std::move(body));
    }
}

void BridgeCore::itemMutation(Bytes body) {
    if (auto requests = collaborators_.phoneVolume) {
        runtime::spawnTask(collaborators_.executor, std::move(requests),
                           &mount::PhoneVolumeRequests::handleItemPoke, std::move(body));
    }
}

void BridgeCore::tellObservers(BridgeNotifyMessage message, const Bytes& param) const {
    std::shared_ptr<BridgeObserver> observer;
    {
        Lock guard(lock_);
        observer = observer_;
    }
    if (observer) {
        observer->notificationPosted(static_cast<std::int64_t>(message), param);
    }
}

void BridgeCore::sendToRole(std::int64_t role, BridgeNotifyMessage message, Bytes param) const {
    if (auto proxy = clientProxy(role)) {
        proxy->notifyClient(static_cast<std::int64_t>(message), std::move(param));
    }
}

void BridgeCore::broadcastBridgeState(std::int64_t source, const Lock&) {
    constexpr auto fileProvider = static_cast<std::int64_t>(HarborBridgeClientRole::fileProvider);
    constexpr auto desktopApp = static_cast<std::int64_t>(HarborBridgeClientRole::desktopApp);
    if (source == static_cast<std::int64_t>(HarborBridgeClientRole::usbMux)) {
        const bool connected = usbMuxConnection_.has_value();
        postStateNotification(desktopApp, source, connected, true);
        postStateNotification(fileProvider, source, connected, false);
    } else if (source == fileProvider) {
        postStateNotification(desktopApp, source, byRole_.contains(fileProvider), true);
    }
}

void BridgeCore::postStateNotification(std::int64_t target, std::int64_t source, bool connected,
                                       bool observed) {
    // Sent from the main actor once the registry lock is released; the proxy is looked
    // up then, so a client gone meanwhile gets nothing.
    asio::post(mainActor_, [self = shared_from_this(), target, source, connected, observed] {
        auto body = json::encode(NotifyBridgeStateChangedPayload{source, connected});
        if (!body) {
            return;
        }
        // One event reaches observers once, however many roles it is sent to.
        if (observed) {
            self->tellObservers(BridgeNotifyMessage::bridgeStateChanged, *body);
        }
        self->sendToRole(target, BridgeNotifyMessage::bridgeStateChanged, std::move(*body));
    });
}

}  // namespace skiff::service
