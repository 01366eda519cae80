#include "tunnel/usbmux_tunnel_transport.hpp"

#include <cstdint>
#include <limits>
#include <optional>

#include "common/check.hpp"
#include "tunnel/tunnel_errors.hpp"

namespace skiff::tunnel {
namespace {

std::string queueLabel(std::uint16_t port, const char* direction) {
    return "Mox.Harbor.usbmux-tunnel." + std::to_string(port) + direction;
}

TunnelTransportError disconnected() {
    return TunnelTransportError(TunnelTransportError::Case::disconnected);
}

}  // namespace

UsbMuxTunnelTransport::UsbMuxTunnelTransport(tunnel_id tunnel)
    : tunnel_(tunnel),
      sendQueue_(queueLabel(tunnel.port, ".send")),
      recvQueue_(queueLabel(tunnel.port, ".recv")) {}

asio::awaitable<void> UsbMuxTunnelTransport::send(Bytes head, SharedBytes tail) {
    // An empty unit still reaches the native layer, which ensures the tunnel. One native
    // call for both pieces, so that they go to one connection with no other send between.
    // Jobs are named locals: the co_await temporaries rule in common/task.hpp.
    auto write = [tunnel = tunnel_, head = std::move(head), tail = std::move(tail)] {
        return usbmux_tunnel_send_pair(tunnel, head.data(), static_cast<std::uint32_t>(head.size()),
                                       tail.bytes().data(),
                                       static_cast<std::uint32_t>(tail.size()));
    };
    bool sent = co_await sendQueue_.run(std::move(write));
    if (!sent) {
        throw disconnected();
    }
}

asio::awaitable<Bytes> UsbMuxTunnelTransport::receive(std::size_t count) {
    if (count > std::numeric_limits<std::uint32_t>::max()) {
        fatalError("receive count over 32 bits");
    }
    auto read = [tunnel = tunnel_, count] {
        Bytes buffer(count);
        bool ok = usbmux_tunnel_recv(tunnel, buffer.data(), static_cast<std::uint32_t>(count));
        return ok ? std::optional<Bytes>(std::move(buffer)) : std::nullopt;
    };
    std::optional<Bytes> received = co_await recvQueue_.run(std::move(read));
    if (!received) {
        throw disconnected();
    }
    co_return std::move(*received);
}

asio::awaitable<void> UsbMuxTunnelTransport::close() {
    auto invalidate = [tunnel = tunnel_] { usbmux_mgr_invalidate_tunnel(tunnel); };
    co_await sendQueue_.run(std::move(invalidate));
}

}  // namespace skiff::tunnel
