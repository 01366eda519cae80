#include "service/bridge_core.hpp"

#include <algorithm>
#include <utility>

#include "common/log.hpp"
#include "common/task.hpp"

namespace skiff::service {

namespace {
constexpr std::int64_t kFileProvider =
    static_cast<std::int64_t>(HarborBridgeClientRole::fileProvider);
constexpr std::int64_t kDesktopApp = static_cast<std::int64_t>(HarborBridgeClientRole::desktopApp);
constexpr std::int64_t kUsbMux = static_cast<std::int64_t>(HarborBridgeClientRole::usbMux);
constexpr std::int32_t kDeviceRemoved = 2;
}  // namespace

BridgeCore::BridgeCore(BridgeCollaborators collaborators)
    : collaborators_(std::move(collaborators)),
      mainActor_(asio::make_strand(collaborators_.executor)) {}

void BridgeCore::bootstrapUsbMuxIfNeeded() {
    {
        Lock guard(lock_);
        if (usbMuxBootstrapped_) {
            return;
        }
        // Never cleared, so a failed start is not retried in the life of the process. A
        // start without usbmuxd succeeds: the USB layer subscribes once the daemon appears.
        usbMuxBootstrapped_ = true;
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

void BridgeCore::addPending(const HarborBridgeHostProtocol* host,
                            std::shared_ptr<ClientConnection> connection) {
    Lock guard(lock_);
    pendingByHost_[host] = std::move(connection);
}

bool BridgeCore::registerClient(const HarborBridgeHostProtocol* host, std::int64_t role) {
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
    if (observer_ && holder != connection) {
        observer_->roleChanged(role, connection->name(), holder ? holder->name() : "");
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

void BridgeCore::removeConnection(const std::shared_ptr<ClientConnection>& connection) {
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
        if (observer_) {
            observer_->roleChanged(role, "", "");
        }
        broadcastBridgeState(role, guard);
    }
}

std::optional<std::int64_t> BridgeCore::roleOfHost(const HarborBridgeHostProtocol* host) const {
    Lock guard(lock_);
    for (const auto& [role, connection] : byRole_) {
        if (connection->exportedObject() == host) {
            return role;
        }
    }
    return std::nullopt;
}

std::vector<std::string> BridgeCore::attachedDevices() const {
    Lock guard(lock_);
    return attached_;
}

bool BridgeCore::fileProviderDisplaced() const {
    Lock guard(lock_);
    return !displaced_.empty();
}

void BridgeCore::postVolumeNotice(const std::string& text) const {
    log::xpc().info("volume notice: %{public}s", text.c_str());
    Lock guard(lock_);
    if (observer_) {
        observer_->volumeNotice(text);
    }
}

bool BridgeCore::hasClient(std::int64_t role) const {
    Lock guard(lock_);
    return byRole_.contains(role);
}

std::shared_ptr<HarborBridgeClientProtocol> BridgeCore::clientProxy(
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

std::optional<std::string> BridgeCore::usbMuxConnection() const {
    Lock guard(lock_);
    return usbMuxConnection_;
}

void BridgeCore::setObserver(std::shared_ptr<BridgeObserver> observer) {
    Lock guard(lock_);
    observer_ = std::move(observer);
}

void BridgeCore::handleUsbDeviceEvent(std::int32_t eventType, const std::string& udid) {
    log::xpc().info("usb device event type=%{public}d udid=%{public}s", eventType, udid.c_str());
    Lock guard(lock_);
    if (observer_) {
        observer_->deviceChanged(udid, eventType != kDeviceRemoved);
    }
    if (eventType == kDeviceRemoved) {
        std::erase(attached_, udid);
        // The relay's tunnel may have been to that phone; the next relay opens one to a
        // phone still there.
        const bool noneLeft = attached_.empty();
        usbMuxConnection_ = noneLeft ? std::nullopt : std::optional(attached_.front());
        runtime::spawnTask(collaborators_.executor, shared_from_this(),
                           &BridgeCore::afterDeviceRemoved, noneLeft);
        if (!noneLeft) {
            return;
        }
    } else {
        if (std::find(attached_.begin(), attached_.end(), udid) == attached_.end()) {
            attached_.push_back(udid);
        }
        usbMuxConnection_ = attached_.front();
        if (auto connected = collaborators_.probe.usbDidConnect) {
            asio::post(collaborators_.executor, std::move(connected));
        }
    }
    broadcastBridgeState(kUsbMux, guard);
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
