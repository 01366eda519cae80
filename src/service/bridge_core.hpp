#pragma once
// The service's core: starts the USB layer once, takes its device events, and holds the
// parts that client requests are handed to. Who is connected, and telling them, is the
// notification hub's; the core tells it of every phone that comes or goes.
//
// Threads: every method may be called from any thread; the collaborators are set at
// construction and never change.

#include <asio.hpp>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "mount/volume.hpp"
#include "mount/volume_control.hpp"
#include "relay/tunnel_relay_bridge.hpp"
#include "service/notification_hub.hpp"
#include "service/usbmux_link.hpp"
#include "transfer/transfer_coordinator.hpp"

namespace skiff::service {

// The relay probe's view of the USB link.
struct RelayProbeHooks {
    std::function<void()> usbDidConnect;
    std::function<void()> usbDidDisconnect;
};

struct BridgeCollaborators {
    asio::any_io_executor executor;                         // where tasks run
    std::shared_ptr<NotificationHub> hub;                   // never null
    std::shared_ptr<UsbMuxLink> usbMux;                     // may be null: no USB layer
    std::shared_ptr<relay::TunnelRelayBridge> relayBridge;  // may be null in tests
    RelayProbeHooks probe;
    std::shared_ptr<transfer::TransferCoordinator> transfers;  // may be null in tests
    std::shared_ptr<mount::Volume> volume;                     // may be null: none to unmount
    std::shared_ptr<mount::VolumeListener> volumeListener;     // the relay probe; may be null
    std::shared_ptr<mount::VolumeControl> volumeControl;       // may be null: no mounting
};

class BridgeCore : public std::enable_shared_from_this<BridgeCore> {
public:
    explicit BridgeCore(BridgeCollaborators collaborators);
    BridgeCore(const BridgeCore&) = delete;
    BridgeCore& operator=(const BridgeCore&) = delete;

    // Begins the USB layer's start once per process; a failed start is not retried.
    void bootstrapUsbMuxIfNeeded();

    void handleUsbDeviceEvent(std::int32_t eventType, const std::string& udid);

    NotificationHub& hub() const { return *collaborators_.hub; }
    const asio::any_io_executor& executor() const { return collaborators_.executor; }
    const std::shared_ptr<relay::TunnelRelayBridge>& relayBridge() const {
        return collaborators_.relayBridge;
    }
    const std::shared_ptr<UsbMuxLink>& usbMux() const { return collaborators_.usbMux; }
    const std::shared_ptr<transfer::TransferCoordinator>& transfers() const {
        return collaborators_.transfers;
    }
    const std::shared_ptr<mount::Volume>& volume() const { return collaborators_.volume; }
    const std::shared_ptr<mount::VolumeListener>& volumeListener() const {
        return collaborators_.volumeListener;
    }
    const std::shared_ptr<mount::VolumeControl>& volumeControl() const {
        return collaborators_.volumeControl;
    }

private:
    asio::awaitable<void> startUsbMux();
    asio::awaitable<void> afterDeviceRemoved(bool noneLeft);

    const BridgeCollaborators collaborators_;
    // Never cleared, so a failed start is not retried in the life of the process.
    std::atomic<bool> usbMuxBootstrapped_{false};
};

}  // namespace skiff::service
