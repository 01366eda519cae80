// What the hub sends: notifications to a role's client, and the same to the observers.
#include <utility>

#include "common/json.hpp"
#include "common/log.hpp"
#include "common/notification_payloads.hpp"
#include "common/task.hpp"
#include "service/notification_hub.hpp"

namespace skiff::service {

void NotificationHub::notifyRole(std::int64_t role, BridgeNotifyMessage message,
                                 Bytes param) const {
    tellObservers([&](BridgeObserver& o) {
        o.notificationPosted(static_cast<std::int64_t>(message), param);
    });
    sendToRole(role, message, std::move(param));
}

void NotificationHub::fileIOProgress(const transfer::TransferProgress& progress) {
    const FileIOProgressPayload payload{progress.sessionID, progress.completedBytes,
                                        progress.totalBytes, progress.percent};
    // A progress step that cannot be encoded is dropped; the transfer goes on.
    if (auto body = json::encode(payload)) {
        notifyRole(static_cast<std::int64_t>(HarborBridgeClientRole::fileProvider),
                   BridgeNotifyMessage::fileIOProgress, std::move(*body));
    }
}

void NotificationHub::forwardToExtension(std::int64_t message, Bytes body) {
    if (auto known = notifyMessageFromRaw(message)) {
        notifyRole(static_cast<std::int64_t>(HarborBridgeClientRole::fileProvider), *known,
                   std::move(body));
    }
}

void NotificationHub::mountControl(Bytes body) {
    if (auto requests = volumeRequests()) {
        runtime::spawnTask(executor_, std::move(requests),
                           &mount::PhoneVolumeRequests::handleMountControl, std::move(body));
    }
}

void NotificationHub::itemMutation(Bytes body) {
    if (auto requests = volumeRequests()) {
        runtime::spawnTask(executor_, std::move(requests),
                           &mount::PhoneVolumeRequests::handleItemPoke, std::move(body));
    }
}

void NotificationHub::postVolumeNotice(const std::string& text) const {
    log::xpc().info("volume notice: %{public}s", text.c_str());
    tellObservers([&text](BridgeObserver& o) { o.volumeNotice(text); });
}

void NotificationHub::tellObservers(const std::function<void(BridgeObserver&)>& tell) const {
    Lock guard(observersLock_);
    for (const auto& observer : observers_) {
        tell(*observer);
    }
}

void NotificationHub::sendToRole(std::int64_t role, BridgeNotifyMessage message,
                                 Bytes param) const {
    if (auto proxy = clientProxy(role)) {
        proxy->notifyClient(static_cast<std::int64_t>(message), std::move(param));
    }
}

void NotificationHub::broadcastBridgeState(std::int64_t source, const Lock&) {
    constexpr auto fileProvider = static_cast<std::int64_t>(HarborBridgeClientRole::fileProvider);
    constexpr auto desktopApp = static_cast<std::int64_t>(HarborBridgeClientRole::desktopApp);
    if (source == static_cast<std::int64_t>(HarborBridgeClientRole::usbMux)) {
        const bool connected = !attached_.empty();
        postStateNotification(desktopApp, source, connected, true);
        postStateNotification(fileProvider, source, connected, false);
    } else if (source == fileProvider) {
        postStateNotification(desktopApp, source, byRole_.contains(fileProvider), true);
    }
}

void NotificationHub::postStateNotification(std::int64_t target, std::int64_t source,
                                            bool connected, bool observed) {
    // Sent from the main actor once the registry lock is released; the proxy is looked
    // up then, so a client gone meanwhile gets nothing.
    asio::post(mainActor_, [self = shared_from_this(), target, source, connected, observed] {
        auto body = json::encode(NotifyBridgeStateChangedPayload{source, connected});
        if (!body) {
            return;
        }
        // One event reaches observers once, however many roles it is sent to.
        if (observed) {
            self->tellObservers([&body](BridgeObserver& o) {
                o.notificationPosted(
                    static_cast<std::int64_t>(BridgeNotifyMessage::bridgeStateChanged), *body);
            });
        }
        self->sendToRole(target, BridgeNotifyMessage::bridgeStateChanged, std::move(*body));
    });
}

}  // namespace skiff::service
