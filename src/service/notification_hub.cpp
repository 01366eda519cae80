#include "service/notification_hub.hpp"

#include <algorithm>
#include <utility>

#include "common/log.hpp"

namespace skiff::service {

namespace {
constexpr std::int64_t kFileProvider =
    static_cast<std::int64_t>(HarborBridgeClientRole::fileProvider);
constexpr std::int64_t kDesktopApp = static_cast<std::int64_t>(HarborBridgeClientRole::desktopApp);
constexpr std::int64_t kUsbMux = static_cast<std::int64_t>(HarborBridgeClientRole::usbMux);
}  // namespace

NotificationHub::NotificationHub(asio::any_io_executor executor)
    : executor_(std::move(executor)), mainActor_(asio::make_strand(executor_)) {}

void NotificationHub::attach(std::shared_ptr<BridgeObserver> observer) {
    Lock guard(observersLock_);
    observers_.push_back(std::move(observer));
}

void NotificationHub::detach(const BridgeObserver* observer) {
    Lock guard(observersLock_);
    std::erase_if(observers_, [observer](const auto& o) { return o.get() == observer; });
}

void NotificationHub::attachVolumeRequests(std::shared_ptr<mount::PhoneVolumeRequests> requests) {
    Lock guard(lock_);
    volumeRequests_ = std::move(requests);
}

std::shared_ptr<mount::PhoneVolumeRequests> NotificationHub::volumeRequests() const {
    Lock guard(lock_);
    return volumeRequests_;
}

void NotificationHub::addPending(const HarborBridgeHostProtocol* host,
                                 std::shared_ptr<ClientConnection> connection) {
    Lock guard(lock_);
    pendingByHost_[host] = std::move(connection);
}

bool NotificationHub::registerClient(const HarborBridgeHostProtocol* host, std::int64_t role) {
    if (!clientRoleFromRaw(role)) {
        return false;
    }
    Lock guard(lock_);
    std::shared_ptr<ClientConnection> connection;
    if (auto pending = pendingByHost_.find(host); pending != pendingByHost_.end()) {
        connection = std::move(pending->second);
        pendingByHost_.erase(pending);
    } else {
        // Registering again: find the caller's connection under its current role.
        auto entry = byRole_.begin();
        while (entry != byRole_.end() && entry->second->exportedObject() != host) {
            ++entry;
        }
        if (entry != byRole_.end()) {
            connection = entry->second;
            if (entry->first != role) {
                byRole_.erase(entry);
            }
        } else {
            // Or a file provider that a later one displaced, taking a role back.
            const auto displaced =
                std::find_if(displaced_.begin(), displaced_.end(),
                             [host](const auto& c) { return c->exportedObject() == host; });
            if (displaced == displaced_.end()) {
                return false;
            }
            connection = *displaced;
        }
    }
    // A later client of a role replaces the earlier one. The earlier one stays connected
    // and learns it from the observers' signal, which names it.
    std::erase(displaced_, connection);
    auto& holder = byRole_[role];
    if (holder && holder != connection) {
        log::xpc().info("role %{public}lld taken over by %{public}s from %{public}s",
                        static_cast<long long>(role), connection->name().c_str(),
                        holder->name().c_str());
        if (role == kFileProvider) {
            displaced_.push_back(holder);
        }
    }
    if (holder != connection) {
        const auto replaced = holder ? holder->name() : "";
        tellObservers(
            [&](BridgeObserver& o) { o.roleChanged(role, connection->name(), replaced); });
    }
    holder = std::move(connection);
    if (role == kDesktopApp) {
        log::xpc().info("desktop app registered");
    } else if (role == kFileProvider) {
        log::xpc().info("file provider registered");
    }
    broadcastBridgeState(kFileProvider, guard);
    broadcastBridgeState(kUsbMux, guard);
    return true;
}

void NotificationHub::removeConnection(const std::shared_ptr<ClientConnection>& connection) {
    Lock guard(lock_);
    std::erase(displaced_, connection);
    for (auto it = pendingByHost_.begin(); it != pendingByHost_.end(); ++it) {
        if (it->second == connection) {
            pendingByHost_.erase(it);
            break;
        }
    }
    // Only these two roles leave on invalidation; a usbMux registration stays on purpose.
    for (std::int64_t role : {kFileProvider, kDesktopApp}) {
        auto entry = byRole_.find(role);
        if (entry == byRole_.end() || entry->second != connection) {
            continue;
        }
        byRole_.erase(entry);
        log::xpc().info(role == kFileProvider ? "file provider disconnected"
                                              : "desktop app disconnected");
        tellObservers([role](BridgeObserver& o) { o.roleChanged(role, "", ""); });
        broadcastBridgeState(role, guard);
    }
}

std::optional<std::int64_t> NotificationHub::roleOfHost(
    const HarborBridgeHostProtocol* host) const {
    Lock guard(lock_);
    for (const auto& [role, connection] : byRole_) {
        if (connection->exportedObject() == host) {
            return role;
        }
    }
    return std::nullopt;
}

std::shared_ptr<HarborBridgeClientProtocol> NotificationHub::clientProxy(
    std::int64_t role, std::function<void(const ClientCallFailure&)> onFailure) const {
    std::shared_ptr<ClientConnection> connection;
    {
        Lock guard(lock_);
        auto entry = byRole_.find(role);
        if (entry == byRole_.end()) {
            return nullptr;
        }
        connection = entry->second;
    }
    // Asked outside the lock: the adapter may take locks of its own.
    return connection->remoteObjectProxy(
        [role, onFailure = std::move(onFailure)](const ClientCallFailure& failure) {
            log::xpc().error("client proxy error (%{public}ld): %{public}s",
                             static_cast<long>(role), failure.text.c_str());
            if (onFailure) {
                onFailure(failure);
            }
        });
}

bool NotificationHub::hasClient(std::int64_t role) const {
    Lock guard(lock_);
    return byRole_.contains(role);
}

bool NotificationHub::fileProviderDisplaced() const {
    Lock guard(lock_);
    return !displaced_.empty();
}

void NotificationHub::phoneAttached(const std::string& udid) {
    Lock guard(lock_);
    tellObservers([&udid](BridgeObserver& o) { o.deviceChanged(udid, true); });
    if (std::find(attached_.begin(), attached_.end(), udid) == attached_.end()) {
        attached_.push_back(udid);
    }
    broadcastBridgeState(kUsbMux, guard);
}

bool NotificationHub::phoneRemoved(const std::string& udid) {
    Lock guard(lock_);
    tellObservers([&udid](BridgeObserver& o) { o.deviceChanged(udid, false); });
    std::erase(attached_, udid);
    if (!attached_.empty()) {
        return false;  // another phone stays: for clients the link is still up
    }
    broadcastBridgeState(kUsbMux, guard);
    return true;
}

std::optional<std::string> NotificationHub::usbMuxConnection() const {
    Lock guard(lock_);
    return attached_.empty() ? std::nullopt : std::optional(attached_.front());
}

std::vector<std::string> NotificationHub::attachedDevices() const {
    Lock guard(lock_);
    return attached_;
}

}  // namespace skiff::service
