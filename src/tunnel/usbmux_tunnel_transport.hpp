#pragma once
// A TunnelTransport over one connection of a native USB-mux tunnel. The native calls
// block, so writes and the close run on one labelled serial queue and reads on another;
// a read and a write may run at the same time. Every native failure is disconnected;
// nothing is retried here (the binder drops the tunnel and reconnects).
//
// The transport keeps to the connection the tunnel had when it was made: once that one
// is dropped, whatever is still queued here fails instead of reaching the connection
// that replaced it, and close() drops this connection only. Each queued job holds a
// share of the connection, so it stays open until the last job has run.

#include <asio.hpp>
#include <memory>
#include <string>

#include "common/serial_queue.hpp"
#include "tunnel/tunnel_transport.hpp"
#include "usbmuxkit/usbmux_flat.h"

namespace skiff::tunnel {

class UsbMuxTunnelTransport : public TunnelTransport {
public:
    // tunnel must already have been ensured; with no connection there now, every call
    // fails with disconnected. Looks the connection up without connecting.
    explicit UsbMuxTunnelTransport(tunnel_id tunnel);

    asio::awaitable<void> send(Bytes head, SharedBytes tail) override;
    asio::awaitable<Bytes> receive(std::size_t count) override;
    asio::awaitable<void> close() override;

    const tunnel_id& tunnel() const { return tunnel_; }
    // "Mox.Harbor.usbmux-tunnel.<port>.send" and ".recv".
    const std::string& sendQueueLabel() const { return sendQueue_.label(); }
    const std::string& recvQueueLabel() const { return recvQueue_.label(); }

private:
    using Connection = std::shared_ptr<usbmux_tunnel_conn>;

    tunnel_id tunnel_;
    Connection connection_;  // null when the tunnel had none
    runtime::SerialQueue sendQueue_;
    runtime::SerialQueue recvQueue_;
};

}  // namespace skiff::tunnel
