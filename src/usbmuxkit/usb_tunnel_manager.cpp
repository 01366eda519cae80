#include "usbmuxkit/usb_tunnel_manager.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>

#include "common/log.hpp"
#include "usbmuxkit/usbmux_backend.hpp"

namespace usbmuxkit {
namespace {

struct DeviceEntry {
    uint32_t handle = 0;
    std::string udid;
};

using SessionPtr = std::shared_ptr<TunnelSession>;
using Dropped = std::vector<SessionPtr>;

// Wakes whoever still transfers on the dropped sessions; our shares go away on return.
void release(Dropped& dropped) {
    for (auto& session : dropped) {
        if (session) {
            session->interrupt();
        }
    }
    dropped.clear();
}

std::vector<DeviceEntry> fetchDevices() {
    UsbmuxBackend& backend = usbmuxBackend();
    usbmuxd_device_info_t* list = nullptr;
    const int count = backend.getDeviceList(&list);
    std::vector<DeviceEntry> devices;
    if (count >= 1 && list != nullptr) {
        devices.reserve(static_cast<size_t>(count));
        for (int i = 0; i < count; ++i) {
            const usbmuxd_device_info_t& record = list[i];
            devices.push_back({record.handle,
                               std::string(record.udid, strnlen(record.udid, sizeof record.udid))});
        }
    }
    backend.deviceListFree(&list);
    return devices;
}

// Well inside the 2 s in which a late or restarted daemon must be followed.
constexpr auto kWatchPeriod = std::chrono::milliseconds(250);

}  // namespace

struct UsbTunnelManager::Impl {
    std::atomic<bool> eventsActive{false};
    std::atomic<bool> devicesDirty{true};
    bool started = false;
    usbmuxd_subscription_context_t subscription = nullptr;
    std::vector<DeviceEntry> devices;
    std::unordered_map<TunnelKey, SessionPtr, TunnelKeyHash> tunnels;
    DeviceEventCallback deviceEventCallback;

    // Guards started, devices, tunnels and the callback; held only for short work.
    std::mutex mutex;
    // Orders refreshes so an older device list never overwrites a newer one.
    std::mutex refreshMutex;
    // Serialises start and shutdown. The event thread never takes it, so shutdown
    // may hold it while the library waits for that thread.
    std::mutex lifecycleMutex;

    // The subscription and the daemon it was made with belong to whoever holds
    // lifecycleMutex while the watcher is not running, and to the watcher while it runs.
    uint64_t subscribedDaemon = 0;
    bool waitingLogged = false;
    std::thread watcher;
    std::mutex watchMutex;
    std::condition_variable watchWake;
    bool watchStop = false;  // under watchMutex

    Impl() { tunnels.max_load_factor(1.0f); }

    // ---- with `mutex` held ----

    std::string resolveLocked(const std::string& udid) const {
        if (!udid.empty()) {
            return udid;
        }
        for (const auto& entry : devices) {
            if (!entry.udid.empty()) {
                return entry.udid;
            }
        }
        return {};
    }

    int32_t handleLocked(const std::string& udid) const {
        for (const auto& entry : devices) {
            if (entry.udid == udid) {
                return static_cast<int32_t>(entry.handle);
            }
        }
        return -1;
    }

    bool liveLocked(const std::string& udid, const SessionPtr& session) const {
        if (!session || session->fd() < 0) {
            return false;
        }
        const int32_t handle = handleLocked(udid);
        return handle >= 0 && handle == session->deviceHandle();
    }

    bool connectedLocked(const std::string& resolved, uint16_t port) const {
        const auto it = tunnels.find(TunnelKey{resolved, port});
        return it != tunnels.end() && liveLocked(resolved, it->second);
    }

    void eraseLocked(const std::string& resolved, uint16_t port, Dropped& dropped) {
        const auto it = tunnels.find(TunnelKey{resolved, port});
        if (it != tunnels.end()) {
            dropped.push_back(std::move(it->second));
            tunnels.erase(it);
        }
    }

    // ---- refresh ----

    // Caller holds refreshMutex.
    void refreshDevicesHoldingRefresh() {
        std::vector<DeviceEntry> fresh = fetchDevices();
        Dropped dropped;
        {
            std::lock_guard lock(mutex);
            devices = std::move(fresh);
            // A re-plugged device has a new handle, so its old tunnels go here.
            for (auto it = tunnels.begin(); it != tunnels.end();) {
                if (liveLocked(it->first.udid, it->second)) {
                    ++it;
                } else {
                    dropped.push_back(std::move(it->second));
                    it = tunnels.erase(it);
                }
            }
        }
        release(dropped);
    }

    void refreshDevices() {
        std::lock_guard refresh(refreshMutex);
        refreshDevicesHoldingRefresh();
    }

    void refreshDevicesIfDirty() {
        if (devicesDirty.exchange(false)) {
            refreshDevices();
        }
    }

    bool isStarted() {
        std::lock_guard lock(mutex);
        return started;
    }

    void handleEvent(const usbmuxd_event_t* event) {
        if (event == nullptr || !eventsActive.load(std::memory_order_acquire)) {
            return;
        }
        {
            std::lock_guard refresh(refreshMutex);
            // Shutdown may have finished its clean-up while we waited.
            if (!eventsActive.load(std::memory_order_acquire)) {
                return;
            }
            refreshDevicesHoldingRefresh();
            devicesDirty.store(false);
        }
        DeviceEventCallback callback;
        {
            std::lock_guard lock(mutex);
            callback = deviceEventCallback;
        }
        const char* udid = event->device.udid;
        if (!callback || udid[0] == '\0') {
            return;
        }
        DeviceEvent record{};
        record.eventType = event->event;
        const size_t length =
            std::min(strnlen(udid, sizeof event->device.udid), sizeof record.udid - 1);
        std::memcpy(record.udid, udid, length);
        callback(record);
    }

    // ---- following the daemon (lifecycle owner or watcher thread; no lock held) ----

    bool subscribe(UsbTunnelManager* owner, uint64_t daemon, bool first) {
        usbmuxd_subscription_context_t context = nullptr;
        if (!first) {
            // Devices listed before the daemon answered are stale. Listed before the
            // library's event thread exists: the library fills its process-wide message
            // fields lazily and unguarded, so its first message must not be built on two
            // threads at once.
            refreshDevices();
        }
        // Active before subscribing: the library's event thread may announce the devices
        // already present before the subscribe call returns, and those must not be lost.
        eventsActive.store(true);
        if (usbmuxBackend().eventsSubscribe(&context, &UsbTunnelManager::onUsbmuxEvent, owner) !=
            0) {
            eventsActive.store(false);
            if (!first && !waitingLogged) {
                skiff::log::usbMuxNative().info("usbmuxd does not answer yet; waiting for it");
                waitingLogged = true;
            }
            return false;
        }
        subscription = context;
        subscribedDaemon = daemon;
        waitingLogged = false;
        skiff::log::usbMuxNative().info(first ? "usbmuxd is running; listening for devices"
                                              : "usbmuxd appeared; listening for devices");
        return true;
    }

    // Ends the subscription to a daemon that went away and reports its devices removed.
    void loseDaemon() {
        skiff::log::usbMuxNative().info("usbmuxd went away; its devices are gone");
        eventsActive.store(false);
        // Waits for the library's event thread, so no event of the old daemon follows.
        usbmuxBackend().eventsUnsubscribe(subscription);
        subscription = nullptr;
        subscribedDaemon = 0;
        std::vector<DeviceEntry> gone;
        Dropped dropped;
        DeviceEventCallback callback;
        {
            std::lock_guard refresh(refreshMutex);
            std::lock_guard lock(mutex);
            // Empty already when the library reported the loss itself.
            gone = std::exchange(devices, {});
            for (auto& [key, session] : tunnels) {
                dropped.push_back(std::move(session));
            }
            tunnels.clear();
            callback = deviceEventCallback;
        }
        devicesDirty.store(true);
        release(dropped);
        if (!callback) {
            return;
        }
        for (const auto& entry : gone) {
            if (entry.udid.empty()) {
                continue;
            }
            DeviceEvent record{};
            record.eventType = UE_DEVICE_REMOVE;
            std::memcpy(record.udid, entry.udid.data(),
                        std::min(entry.udid.size(), sizeof record.udid - 1));
            callback(record);
        }
    }

    void followDaemon(UsbTunnelManager* owner) {
        const uint64_t daemon = usbmuxBackend().daemonIdentity();
        if (subscription != nullptr && daemon != subscribedDaemon) {
            loseDaemon();
        }
        if (subscription == nullptr) {
            if (daemon != 0) {
                subscribe(owner, daemon, false);
            } else if (!waitingLogged) {
                skiff::log::usbMuxNative().info("usbmuxd is not running; waiting for it");
                waitingLogged = true;
            }
        }
    }

    void watch(UsbTunnelManager* owner) {
        std::unique_lock lock(watchMutex);
        while (!watchWake.wait_for(lock, kWatchPeriod, [this] { return watchStop; })) {
            lock.unlock();
            followDaemon(owner);
            lock.lock();
        }
    }
};

UsbTunnelManager& UsbTunnelManager::shared() {
    static UsbTunnelManager instance;
    return instance;
}

UsbTunnelManager::UsbTunnelManager() : impl_(std::make_unique<Impl>()) {}

UsbTunnelManager::~UsbTunnelManager() {
    shutdown();
}

void UsbTunnelManager::onUsbmuxEvent(const usbmuxd_event_t* event, void* userData) {
    auto* manager = static_cast<UsbTunnelManager*>(userData);
    if (manager == nullptr || manager->impl_ == nullptr) {
        return;
    }
    manager->impl_->handleEvent(event);
}

bool UsbTunnelManager::start() {
    Impl& d = *impl_;
    std::lock_guard lifecycle(d.lifecycleMutex);
    if (d.isStarted()) {
        return true;
    }
    d.refreshDevices();
    d.devicesDirty.store(false);
    d.waitingLogged = false;
    // Without a daemon the library would wait for it at its default path only, so the
    // subscription is left to the watcher until the socket is there.
    const uint64_t daemon = usbmuxBackend().daemonIdentity();
    if (daemon != 0) {
        // A daemon that is there but cannot be subscribed to is an error, not a wait.
        if (!d.subscribe(this, daemon, true)) {
            return false;
        }
    } else {
        skiff::log::usbMuxNative().info("usbmuxd is not running; waiting for it");
        d.waitingLogged = true;
    }
    {
        std::lock_guard lock(d.mutex);
        d.started = true;
    }
    {
        std::lock_guard lock(d.watchMutex);
        d.watchStop = false;
    }
    d.watcher = std::thread([this] { impl_->watch(this); });
    return true;
}

void UsbTunnelManager::shutdown() {
    Impl& d = *impl_;
    std::lock_guard lifecycle(d.lifecycleMutex);
    if (!d.isStarted()) {
        return;
    }
    // First, so that it cannot subscribe again behind us. It may be subscribing or
    // reporting removals; both end without our locks, and it never takes lifecycleMutex.
    {
        std::lock_guard lock(d.watchMutex);
        d.watchStop = true;
    }
    d.watchWake.notify_all();
    d.watcher.join();
    Dropped dropped;
    {
        std::lock_guard lock(d.mutex);
        if (!d.started) {
            return;
        }
        d.deviceEventCallback = nullptr;
        d.eventsActive.store(false);
        // Stopped from here on, so a concurrent ensure cannot add a tunnel behind us.
        d.started = false;
        for (auto& [key, session] : d.tunnels) {
            dropped.push_back(std::move(session));
        }
        d.tunnels.clear();
    }
    release(dropped);
    // Without our locks: the library may wait here for its event thread.
    if (d.subscription != nullptr) {
        usbmuxBackend().eventsUnsubscribe(d.subscription);
    }
    d.subscription = nullptr;
    d.subscribedDaemon = 0;
    std::lock_guard refresh(d.refreshMutex);
    {
        std::lock_guard lock(d.mutex);
        d.devices.clear();
    }
    d.devicesDirty.store(true);
}

void UsbTunnelManager::setDeviceEventCallback(DeviceEventCallback callback) {
    std::lock_guard lock(impl_->mutex);
    impl_->deviceEventCallback = std::move(callback);
}

void UsbTunnelManager::clearDeviceEventCallback() {
    std::lock_guard lock(impl_->mutex);
    impl_->deviceEventCallback = nullptr;
}

std::vector<TunnelKey> UsbTunnelManager::currentTunnels() {
    impl_->refreshDevicesIfDirty();
    std::lock_guard lock(impl_->mutex);
    std::vector<TunnelKey> keys;
    keys.reserve(impl_->tunnels.size());
    for (const auto& entry : impl_->tunnels) {
        keys.push_back(entry.first);
    }
    return keys;
}

bool UsbTunnelManager::isTunnelConnected(const std::string& udid, uint16_t port) {
    Impl& d = *impl_;
    if (!d.isStarted()) {
        return false;
    }
    d.refreshDevicesIfDirty();
    std::lock_guard lock(d.mutex);
    const std::string resolved = d.resolveLocked(udid);
    return !resolved.empty() && d.connectedLocked(resolved, port);
}

bool UsbTunnelManager::ensureTunnel(const std::string& udid, uint16_t port) {
    Impl& d = *impl_;
    if (!d.isStarted()) {
        return false;
    }
    d.refreshDevicesIfDirty();
    std::string resolved;
    int32_t handle = -1;
    Dropped dropped;
    {
        std::lock_guard lock(d.mutex);
        resolved = d.resolveLocked(udid);
        if (resolved.empty()) {
            return false;
        }
        if (d.connectedLocked(resolved, port)) {
            return true;
        }
        d.eraseLocked(resolved, port, dropped);
        handle = d.handleLocked(resolved);
    }
    release(dropped);
    if (handle < 0) {
        return false;
    }
    // One attempt, outside the lock: connecting talks to the daemon.
    const int fd = usbmuxBackend().connect(static_cast<uint32_t>(handle), port);
    if (fd < 0) {
        return false;
    }
    auto session = std::make_shared<TunnelSession>(fd, resolved, handle, port);
    std::lock_guard lock(d.mutex);
    if (!d.started) {
        // Shut down while connecting: nothing may stay behind.
        return false;
    }
    // If another caller got there first, its session stays and ours is closed.
    d.tunnels.try_emplace(TunnelKey{std::move(resolved), port}, std::move(session));
    return true;
}

std::shared_ptr<TunnelSession> UsbTunnelManager::sessionFor(const std::string& udid,
                                                            uint16_t port) {
    impl_->refreshDevicesIfDirty();
    std::lock_guard lock(impl_->mutex);
    const std::string resolved = impl_->resolveLocked(udid);
    if (resolved.empty()) {
        return nullptr;
    }
    const auto it = impl_->tunnels.find(TunnelKey{resolved, port});
    return it != impl_->tunnels.end() ? it->second : nullptr;
}

void UsbTunnelManager::invalidateSession(const std::string& udid, uint16_t port) {
    Impl& d = *impl_;
    if (!d.isStarted()) {
        return;
    }
    d.refreshDevicesIfDirty();
    Dropped dropped;
    {
        std::lock_guard lock(d.mutex);
        const std::string resolved = d.resolveLocked(udid);
        if (resolved.empty()) {
            return;
        }
        d.eraseLocked(resolved, port, dropped);
    }
    release(dropped);
}

void UsbTunnelManager::invalidateSession(const std::shared_ptr<TunnelSession>& session) {
    if (!session) {
        return;
    }
    Dropped dropped{session};
    {
        std::lock_guard lock(impl_->mutex);
        const auto it = impl_->tunnels.find(TunnelKey{session->udid(), session->port()});
        if (it != impl_->tunnels.end() && it->second == session) {
            impl_->tunnels.erase(it);
        }
    }
    release(dropped);
}

}  // namespace usbmuxkit
