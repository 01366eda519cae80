#pragma once
// A TunnelTransport over a native USB-mux tunnel. The native calls block, so writes
// and the close run on one labelled serial queue and reads on another; a read and a
// write may run at the same time. Every native failure is disconnected; nothing is
// retried here (the binder drops the tunnel and reconnects).

#include <asio.hpp>
#include <string>

#include "common/serial_queue.hpp"
#include "tunnel/tunnel_transport.hpp"
#include "usbmuxkit/usbmux_flat.h"

namespace skiff::tunnel {

class UsbMuxTunnelTransport : public TunnelTransport {
public:
    // tunnel must already have been ensured.
    explicit UsbMuxTunnelTransport(tunnel_id tunnel);

    asio::awaitable<void> send(Bytes head, SharedBytes tail) override;
    asio::awaitable<Bytes> receive(std::size_t count) override;
    asio::awaitable<void> close() override;

    const tunnel_id& tunnel() const { return tunnel_; }
    // "Mox.Harbor.usbmux-tunnel.<port>.send" and ".recv".
    const std::string& sendQueueLabel() const { return sendQueue_.label(); }
    const std::string& recvQueueLabel() const { return recvQueue_.label(); }

private:
    tunnel_id tunnel_;
    runtime::SerialQueue sendQueue_;
    runtime::SerialQueue recvQueue_;
};

}  // namespace skiff::tunnel
