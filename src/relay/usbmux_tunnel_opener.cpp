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
    // The transport takes the connection just ensured, in the same job: no other caller's
    // drop or reconnect can come between.
    auto ensure = [id]() -> std::shared_ptr<tunnel::TunnelTransport> {
        if (!usbmux_tunnel_ensure(id)) {
            return nullptr;
        }
        return std::make_shared<tunnel::UsbMuxTunnelTransport>(id);
    };
    co_return co_await queue_.run(ensure);
}

asio::awaitable<void> UsbMuxTunnelOpener::invalidate(std::uint16_t port) {
    const tunnel_id id = firstDeviceTunnel(port);
    auto invalidateNow = [id] { usbmux_mgr_invalidate_tunnel(id); };
    co_await queue_.run(invalidateNow);
}

}  // namespace skiff::relay
