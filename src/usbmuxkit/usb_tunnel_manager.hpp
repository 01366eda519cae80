#pragma once
// Process-wide owner of what is known about attached iPhones at the usbmuxd level:
// the device list, the attach/detach subscription and one tunnel per (UDID, port).
//
// Threads: callers, the library's event thread (list refresh, pruning, callback) and
// the watcher thread that follows the daemon (subscribing, reporting removals) share the device
// list and the tunnel table under one mutex, never held while the device-event callback runs nor
// during a transfer. The table holds sessions by shared_ptr; sessionFor hands out a share, so a
// transfer keeps its session alive, and a holder of a share keeps to that session even after
// the table has moved on to a new one. Dropping a session from the table (invalidate, prune, stale
// replace, shutdown) interrupts its socket to wake a blocked transfer; the last owner disconnects
// it.

#include <usbmuxd.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "usbmuxkit/tunnel_session.hpp"
#include "usbmuxkit/usbmux_flat.h"

namespace usbmuxkit {

using DeviceEvent = ::DeviceEvent;
using DeviceEventCallback = std::function<void(const DeviceEvent&)>;

struct TunnelKey {
    std::string udid;
    uint16_t port = 0;

    bool operator==(const TunnelKey&) const = default;
};

struct TunnelKeyHash {
    size_t operator()(const TunnelKey& key) const {
        return std::hash<std::string>{}(key.udid) ^ (static_cast<size_t>(key.port) << 16);
    }
};

class UsbTunnelManager {
public:
    static UsbTunnelManager& shared();

    // Tests make their own; the service uses shared().
    UsbTunnelManager();
    ~UsbTunnelManager();
    UsbTunnelManager(const UsbTunnelManager&) = delete;
    UsbTunnelManager& operator=(const UsbTunnelManager&) = delete;

    // Lists the devices and subscribes to device events. With no daemon listening it
    // still succeeds: a watcher thread (running until shutdown) checks the daemon's
    // socket every 250 ms, subscribes when it appears, and when it goes away or is
    // replaced, reports its devices removed and subscribes again to the new one.
    // False only when a daemon is there but the subscription cannot be made.
    // Callbacks may then run on the watcher thread as well as the library's.
    bool start();
    // Stops the watcher and the subscription; no callback runs after it returns.
    void shutdown();

    void setDeviceEventCallback(DeviceEventCallback callback);
    void clearDeviceEventCallback();

    // An empty udid names the first listed device with a non-empty UDID.
    std::vector<TunnelKey> currentTunnels();
    bool isTunnelConnected(const std::string& udid, uint16_t port);
    bool ensureTunnel(const std::string& udid, uint16_t port);
    std::shared_ptr<TunnelSession> sessionFor(const std::string& udid, uint16_t port);
    void invalidateSession(const std::string& udid, uint16_t port);
    // Interrupts session, and drops it from the table only if it is still its tunnel's:
    // a session that was replaced meanwhile must not take its successor down with it.
    void invalidateSession(const std::shared_ptr<TunnelSession>& session);

    // The measurement line protocol; results go to the out pointers (when given)
    // only on success, and the figures to standard output, failures to standard error.
    static bool runPing(TunnelSession& session, double* rttMs);
    static bool runDownloadTest(TunnelSession& session, uint64_t bytes, double* seconds);
    static bool runUploadTest(TunnelSession& session, uint64_t bytes, double* seconds);

private:
    struct Impl;
    static void onUsbmuxEvent(const usbmuxd_event_t* event, void* userData);

    std::unique_ptr<Impl> impl_;
};

}  // namespace usbmuxkit
