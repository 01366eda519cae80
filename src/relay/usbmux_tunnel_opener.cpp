#include "relay/tunnel_opener.hpp"
#include "tunnel/usbmux_tunnel_transport.hpp"
#include "usbmuxkit/usbmux_flat.h"

namespace skiff::relay {

namespace {
tunnel_id firstDeviceTunnel(std::uint16_t port) {
    tunnel_id id{};
    id.port = port;
    return id;
}
}  // namespace

UsbMuxTunnelOpener::UsbMuxTunnelOpener() : queue_("Mox.Harbor.relay-tunnel-opener") {}

asio::awaitable<std::shared_ptr<tunnel::TunnelTransport>> UsbMuxTunnelOpener::open(
    std::uint16_t port) {
    const tunnel_id id = firstDeviceTunnel(port);
    auto ensure = [id] { return usbmux_tunnel_ensure(id); };
    const bool ensured = co_await queue_.run(ensure);
    if (!ensured) {
        co_return nullptr;
    }
    co_return std::make_shared<tunnel::UsbMuxTunnelTransport>(id);
}

asio::awaitable<void> UsbMuxTunnelOpener::invalidate(std::uint16_t port) {
    const tunnel_id id = firstDeviceTunnel(port);
    auto invalidateNow = [id] { usbmux_mgr_invalidate_tunnel(id); };
    co_await queue_.run(invalidateNow);
}

}  // namespace skiff::relay
