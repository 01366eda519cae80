#pragma once
// Opens and invalidates the native tunnel under the relay bridge. The USB-mux one is
// the real thing; tests open a socket pair instead and count the calls.

#include <asio.hpp>
#include <cstdint>
#include <memory>

#include "common/serial_queue.hpp"
#include "tunnel/tunnel_transport.hpp"

namespace skiff::relay {

class TunnelOpener {
public:
    virtual ~TunnelOpener() = default;
    // A transport over a freshly ensured tunnel to port on the first device, or nothing
    // when there is no device or nothing listens there.
    virtual asio::awaitable<std::shared_ptr<tunnel::TunnelTransport>> open(std::uint16_t port) = 0;
    // Forgets the native tunnel to port, so the next open connects anew.
    virtual asio::awaitable<void> invalidate(std::uint16_t port) = 0;
};

// Over usbmux_tunnel_ensure and usbmux_mgr_invalidate_tunnel; both may block, so they
// run on a serial queue of their own. A transport it opens keeps to the connection it
// was opened on.
class UsbMuxTunnelOpener : public TunnelOpener {
public:
    UsbMuxTunnelOpener();
    asio::awaitable<std::shared_ptr<tunnel::TunnelTransport>> open(std::uint16_t port) override;
    asio::awaitable<void> invalidate(std::uint16_t port) override;

private:
    runtime::SerialQueue queue_;
};

}  // namespace skiff::relay
