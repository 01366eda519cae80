#pragma once
// The host object on the bus (an sd-bus vtable at kHostPath). Every call is routed to the
// host object of the calling peer's connection; a peer seen for the first time is put to
// the listener delegate. The shared-buffer methods live here too: they are the adapter's
// own, and turn RelayToUsbMuxShared into an ordinary relay on the peer's host object.
//
// Threads: everything runs on the bus connection's strand, except the replies, which
// the core may send from any thread.

#include <systemd/sd-bus.h>

#include <chrono>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "common/bridge_protocols.hpp"
#include "service/dbus/bus_connection.hpp"
#include "service/dbus/peer_connection.hpp"

namespace skiff::service::dbus {

// The peers that have called us, by unique name. Used on the strand only.
class PeerTable {
public:
    PeerTable(std::shared_ptr<BusConnection> bus, std::shared_ptr<ListenerDelegate> delegate,
              std::chrono::milliseconds clientDeadline);

    // The caller's connection, accepted now if it is new; null when the delegate refused it.
    std::shared_ptr<PeerConnection> connectionFor(const std::string& peer);

    // The peer's unique name has lost its owner: invalidate and forget its connection.
    void peerGone(const std::string& peer);

    // Forgets every peer and drops its handler without calling it (the service is going away).
    void clear();

private:
    std::shared_ptr<BusConnection> bus_;
    std::shared_ptr<ListenerDelegate> delegate_;
    std::chrono::milliseconds clientDeadline_;
    std::map<std::string, std::shared_ptr<PeerConnection>> peers_;
    std::set<std::string> refused_;
};

class HostObject {
public:
    // Exports the object on `bus`; call before the connection starts.
    HostObject(std::shared_ptr<BusConnection> bus, PeerTable& peers);
    ~HostObject();
    HostObject(const HostObject&) = delete;
    HostObject& operator=(const HostObject&) = delete;

    BusConnection& bus() { return *bus_; }
    const std::shared_ptr<BusConnection>& busShared() const { return bus_; }
    PeerTable& peers() { return peers_; }

private:
    std::shared_ptr<BusConnection> bus_;
    PeerTable& peers_;
    sd_bus_slot* slot_ = nullptr;
};

}  // namespace skiff::service::dbus
