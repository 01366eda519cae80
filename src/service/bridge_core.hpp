#pragma once
// The service's registry of client connections: which accepted connection is still
// pending, which one serves each role, and which phone is attached. It starts the USB
// layer once, takes its device events, and tells clients when the extension or the
// phone comes or goes.
//
// One lock guards every field and is held only for short reads and writes, never across
// a call into a client or the bus adapter.

#include <asio.hpp>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "common/bridge_messages.hpp"
#include "common/bridge_protocols.hpp"
#include "common/bytes.hpp"
#include "mount/phone_volume_requests.hpp"
#include "mount/volume.hpp"
#include "mount/volume_control.hpp"
#include "relay/tunnel_relay_bridge.hpp"
#include "service/usbmux_link.hpp"
#include "transfer/transfer_coordinator.hpp"

namespace skiff::service {

// The relay probe's view of the USB link; it attaches here once it exists.
struct RelayProbeHooks {
    std::function<void()> usbDidConnect;
    std::function<void()> usbDidDisconnect;
};

struct BridgeCollaborators {
    asio::any_io_executor executor;                         // where tasks run
    std::shared_ptr<UsbMuxLink> usbMux;                     // may be null: no USB layer
    std::shared_ptr<relay::TunnelRelayBridge> relayBridge;  // may be null in tests
    RelayProbeHooks probe;
    std::shared_ptr<transfer::TransferCoordinator> transfers;  // may be null in tests
    std::shared_ptr<mount::Volume> volume;                     // may be null: none to unmount
    std::shared_ptr<mount::VolumeListener> volumeListener;     // the relay probe; may be null
    std::shared_ptr<mount::VolumeControl> volumeControl;       // may be null: no mounting
    std::shared_ptr<mount::PhoneVolumeRequests> phoneVolume;   // the phone's pushes; may be null
};

// The relay bridge hands the app's pushes here, and the transfer coordinator its progress
// (both hold the core weakly).
class BridgeCore : public relay::PushSink,
                   public transfer::ProgressSink,
                   public std::enable_shared_from_this<BridgeCore> {
public:
    explicit BridgeCore(BridgeCollaborators collaborators);

    // Begins the USB layer's start once per process; a failed start is not retried.
    void bootstrapUsbMuxIfNeeded();

    // Records a just-accepted connection until its client says who it is.
    void addPending(const HarborBridgeHostProtocol* host,
                    std::shared_ptr<ClientConnection> connection);
    bool registerClient(const HarborBridgeHostProtocol* host, std::int64_t role);
    void removeConnection(const std::shared_ptr<ClientConnection>& connection);

    std::optional<std::int64_t> roleOfHost(const HarborBridgeHostProtocol* host) const;
    // The role's client, or null. A failed call through it is logged; `onFailure` (when
    // given) hears of it too, e.g. to answer a waiting host call when the deadline passed.
    std::shared_ptr<HarborBridgeClientProtocol> clientProxy(
        std::int64_t role, std::function<void(const ClientCallFailure&)> onFailure = nullptr) const;

    // Observers hear of every notification and device event from now on.
    void setObserver(std::shared_ptr<BridgeObserver> observer);
    std::optional<std::string> usbMuxConnection() const;
    // Every phone attached, in the order they came.
    std::vector<std::string> attachedDevices() const;
    bool hasClient(std::int64_t role) const;
    // Whether a file provider that a later one replaced is still connected (it serves a
    // volume that is cut off until it registers again).
    bool fileProviderDisplaced() const;
    // Passes a volume's notice for its user on to the observers.
    void postVolumeNotice(const std::string& text) const;

    void handleUsbDeviceEvent(std::int32_t eventType, const std::string& udid);

    // One-way notification to the client of role; dropped when there is none.
    void notifyRole(std::int64_t role, BridgeNotifyMessage message, Bytes param) const;

    // A push of the app for the file-system extension.
    void forwardToExtension(std::int64_t message, Bytes body) override;
    // The phone's mount request and item notice, each handled in a task of its own.
    void mountControl(Bytes body) override;
    void itemMutation(Bytes body) override;
    // A transfer's progress, for the file-system extension and the observers.
    void fileIOProgress(const transfer::TransferProgress& progress) override;

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
    using Lock = std::lock_guard<std::mutex>;

    void broadcastBridgeState(std::int64_t source, const Lock&);
    void postStateNotification(std::int64_t target, std::int64_t source, bool connected,
                               bool observed);
    void tellObservers(BridgeNotifyMessage message, const Bytes& param) const;
    void sendToRole(std::int64_t role, BridgeNotifyMessage message, Bytes param) const;
    asio::awaitable<void> startUsbMux();
    asio::awaitable<void> afterDeviceRemoved(bool noneLeft);

    BridgeCollaborators collaborators_;
    asio::strand<asio::any_io_executor> mainActor_;

    mutable std::mutex lock_;
    std::map<const HarborBridgeHostProtocol*, std::shared_ptr<ClientConnection>> pendingByHost_;
    std::map<std::int64_t, std::shared_ptr<ClientConnection>> byRole_;
    std::vector<std::shared_ptr<ClientConnection>> displaced_;  // file providers replaced
    bool usbMuxBootstrapped_ = false;
    // Phones attached, in the order they came; usbMuxConnection_ names the first.
    std::vector<std::string> attached_;
    std::optional<std::string> usbMuxConnection_;
    std::shared_ptr<BridgeObserver> observer_;
};

}  // namespace skiff::service
