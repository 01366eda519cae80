#pragma once
// Who is connected and who hears of it: the registry of client connections (pending until
// their client registers a role, then one per role) and of the phones attached over USB,
// and the fan-out of every notification to the role's client and to the observers. skiffd
// builds it before anything that sends it notifications, so each sender gets it in its
// constructor and nothing is reachable before it is wired.
//
// Threads: every method may be called from any thread. One lock guards the registry and is
// held only for short reads and writes, never across a call into a client. Observers are
// called under a lock of their own, so once detach() returns an observer hears nothing
// more; they must not block nor call back into the hub. Made by std::make_shared: a state
// notice in flight holds the hub.

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
#include "relay/tunnel_relay_bridge.hpp"
#include "transfer/transfer_coordinator.hpp"

namespace skiff::service {

class NotificationHub : public ObserverHub,
                        public relay::PushSink,
                        public transfer::ProgressSink,
                        public std::enable_shared_from_this<NotificationHub> {
public:
    // State notifications are sent from a strand on `executor`, the phone's volume pushes
    // handled in tasks on it.
    explicit NotificationHub(asio::any_io_executor executor);
    NotificationHub(const NotificationHub&) = delete;
    NotificationHub& operator=(const NotificationHub&) = delete;

    void attach(std::shared_ptr<BridgeObserver> observer) override;
    void detach(const BridgeObserver* observer) override;
    // The phone's mount requests and item notices go to `requests`. They depend on the
    // relay that sends them, so they are attached once built, before the USB layer starts;
    // a push before then is dropped.
    void attachVolumeRequests(std::shared_ptr<mount::PhoneVolumeRequests> requests);

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
    bool hasClient(std::int64_t role) const;
    // Whether a file provider that a later one replaced is still connected (it serves a
    // volume that is cut off until it registers again).
    bool fileProviderDisplaced() const;

    // A phone came or went (the USB layer's events); clients and observers hear of it.
    void phoneAttached(const std::string& udid);
    // True when no phone is left.
    bool phoneRemoved(const std::string& udid);
    // The first phone still attached, which the relay talks to.
    std::optional<std::string> usbMuxConnection() const;
    // Every phone attached, in the order they came.
    std::vector<std::string> attachedDevices() const;

    // Passes a volume's notice for its user on to the observers.
    void postVolumeNotice(const std::string& text) const;
    // One-way notification to the client of role; dropped when there is none.
    void notifyRole(std::int64_t role, BridgeNotifyMessage message, Bytes param) const;

    // A push of the app for the file-system extension.
    void forwardToExtension(std::int64_t message, Bytes body) override;
    // The phone's mount request and item notice, each handled in a task of its own.
    void mountControl(Bytes body) override;
    void itemMutation(Bytes body) override;
    // A transfer's progress, for the file-system extension and the observers.
    void fileIOProgress(const transfer::TransferProgress& progress) override;

private:
    using Lock = std::lock_guard<std::mutex>;

    void broadcastBridgeState(std::int64_t source, const Lock&);
    void postStateNotification(std::int64_t target, std::int64_t source, bool connected,
                               bool observed);
    // Calls `tell` for each observer attached.
    void tellObservers(const std::function<void(BridgeObserver&)>& tell) const;
    void sendToRole(std::int64_t role, BridgeNotifyMessage message, Bytes param) const;
    std::shared_ptr<mount::PhoneVolumeRequests> volumeRequests() const;

    asio::any_io_executor executor_;
    asio::strand<asio::any_io_executor> mainActor_;

    mutable std::mutex lock_;
    std::map<const HarborBridgeHostProtocol*, std::shared_ptr<ClientConnection>> pendingByHost_;
    std::map<std::int64_t, std::shared_ptr<ClientConnection>> byRole_;
    std::vector<std::shared_ptr<ClientConnection>> displaced_;  // file providers replaced
    // Phones attached, in the order they came; the relay talks to the first.
    std::vector<std::string> attached_;
    std::shared_ptr<mount::PhoneVolumeRequests> volumeRequests_;

    // Taken after lock_ when both are held.
    mutable std::mutex observersLock_;
    std::vector<std::shared_ptr<BridgeObserver>> observers_;
};

}  // namespace skiff::service
