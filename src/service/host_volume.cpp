#include "service/host_volume.hpp"

#include <exception>
#include <stdexcept>
#include <utility>

#include "common/log.hpp"
#include "mount/mount_error.hpp"
#include "relay/relay_schema.hpp"
#include "service/bridge_core.hpp"

namespace skiff::service {

namespace {
constexpr std::uint16_t kUnmountNoticeCode = 20;
}  // namespace

namespace {

asio::awaitable<void> tellPhoneOfUnmount(const BridgeCore& core) {
    const auto& bridge = core.relayBridge();
    if (core.hub().usbMuxConnection() && bridge) {
        const auto reply = co_await bridge->relayForClient(kUnmountNoticeCode, {});
        if (reply.status == static_cast<std::int64_t>(relay::UsbMuxRelayError::ok)) {
            log::xpc().info("filesystemUnmounted — iOS notified");
        } else {
            log::xpc().info("filesystemUnmounted — iOS notify skipped/failed");
        }
    }
}

}  // namespace

asio::awaitable<void> unmountNoticeTask(std::shared_ptr<BridgeCore> core) {
    co_await tellPhoneOfUnmount(*core);
    if (const auto& listener = core->volumeListener()) {
        listener->fileSystemDidEnd();
    }
}

asio::awaitable<void> shutdownTask(std::shared_ptr<BridgeCore> core,
                                   std::function<void(bool)> reply) {
    bool off = true;
    const auto& volume = core->volume();
    try {
        if (!volume) {
            throw mount::MountServiceError::notMounted();
        }
        co_await volume->unmount(true);
        log::xpc().info("shutdown — force unmount ok");
    } catch (const mount::MountServiceError& e) {
        if (e.errorCase() == mount::MountServiceError::Case::notMounted) {
            log::xpc().info("shutdown — already unmounted");
        } else {
            log::xpc().error("shutdown — unmount failed: %{public}s", e.what());
            off = false;
        }
    } catch (const std::exception& e) {
        log::xpc().error("shutdown — unmount failed: %{public}s", e.what());
        off = false;
    }
    co_await tellPhoneOfUnmount(*core);
    if (const auto& listener = core->volumeListener()) {
        listener->volumeDidUnmount();
    }
    reply(off);
}

asio::awaitable<void> mountTask(std::shared_ptr<BridgeCore> core,
                                std::function<void(bool, std::string)> reply) {
    std::string failure;
    try {
        // A volume with no phone behind it would only fail every call.
        if (!core->hub().usbMuxConnection()) {
            throw std::runtime_error("no phone is attached");
        }
        co_await core->volumeControl()->mountVolume();
        log::xpc().info("mountVolume ok");
    } catch (const std::exception& e) {
        failure = e.what();
        log::xpc().error("mountVolume failed: %{public}s", failure.c_str());
    }
    reply(failure.empty(), failure);
}

asio::awaitable<void> unmountTask(std::shared_ptr<BridgeCore> core, bool force,
                                  std::function<void(bool, std::string)> reply) {
    std::string failure;
    try {
        co_await core->volumeControl()->unmountVolume(force);
        log::xpc().info("unmountVolume force=%{public}d ok", force ? 1 : 0);
    } catch (const std::exception& e) {
        failure = e.what();
        log::xpc().error("unmountVolume force=%{public}d failed: %{public}s", force ? 1 : 0,
                         failure.c_str());
    }
    reply(failure.empty(), failure);
}

}  // namespace skiff::service
