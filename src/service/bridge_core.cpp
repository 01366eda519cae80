#include "service/bridge_core.hpp"

#include <utility>

#include "common/log.hpp"
#include "common/task.hpp"

namespace skiff::service {

namespace {
constexpr std::int32_t kDeviceRemoved = 2;
}  // namespace

BridgeCore::BridgeCore(BridgeCollaborators collaborators)
    : collaborators_(std::move(collaborators)) {}

void BridgeCore::bootstrapUsbMuxIfNeeded() {
    // A start without usbmuxd succeeds: the USB layer subscribes once the daemon appears.
    if (usbMuxBootstrapped_.exchange(true)) {
        return;
    }
    log::xpc().info("bootstrapping UsbMuxService");
    runtime::spawnTask(collaborators_.executor, shared_from_this(), &BridgeCore::startUsbMux);
}

asio::awaitable<void> BridgeCore::startUsbMux() {
    auto usbMux = collaborators_.usbMux;
    if (!usbMux) {
        log::xpc().error("UsbMuxService start failed: %{public}s", "no USB layer in this build");
        co_return;
    }
    std::weak_ptr<BridgeCore> weak = weak_from_this();
    UsbMuxLink::DeviceEventHandler handler = [weak](std::int32_t type, const std::string& udid) {
        if (auto self = weak.lock()) {
            self->handleUsbDeviceEvent(type, udid);
        }
    };
    co_await usbMux->setDeviceEventHandler(std::move(handler));
    try {
        co_await usbMux->start();
        log::xpc().info("UsbMuxService started");
    } catch (const std::exception& e) {
        log::xpc().error("UsbMuxService start failed: %{public}s", e.what());
    }
}

void BridgeCore::handleUsbDeviceEvent(std::int32_t eventType, const std::string& udid) {
    log::xpc().info("usb device event type=%{public}d udid=%{public}s", eventType, udid.c_str());
    if (eventType == kDeviceRemoved) {
        // The relay's tunnel may have been to that phone; the next relay opens one to a
        // phone still there.
        const bool noneLeft = hub().phoneRemoved(udid);
        runtime::spawnTask(collaborators_.executor, shared_from_this(),
                           &BridgeCore::afterDeviceRemoved, noneLeft);
        return;
    }
    hub().phoneAttached(udid);
    if (auto connected = collaborators_.probe.usbDidConnect) {
        asio::post(collaborators_.executor, std::move(connected));
    }
}

asio::awaitable<void> BridgeCore::afterDeviceRemoved(bool noneLeft) {
    if (auto bridge = collaborators_.relayBridge) {
        co_await bridge->dropBinding();
    }
    if (noneLeft && collaborators_.probe.usbDidDisconnect) {
        collaborators_.probe.usbDidDisconnect();
    }
}

}  // namespace skiff::service
