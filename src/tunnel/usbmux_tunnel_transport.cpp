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
      connection_(usbmux_tunnel_conn_acquire(tunnel), &usbmux_tunnel_conn_release),
      sendQueue_(queueLabel(tunnel.port, ".send")),
      recvQueue_(queueLabel(tunnel.port, ".recv")) {}

asio::awaitable<void> UsbMuxTunnelTransport::send(Bytes head, SharedBytes tail) {
    // One native call for both pieces, so that no other send comes between them.
    // Jobs are named locals: the co_await temporaries rule in common/task.hpp.
    auto write = [connection = connection_, head = std::move(head), tail = std::move(tail)] {
        return usbmux_tunnel_conn_send_pair(connection.get(), head.data(),
                                            static_cast<std::uint32_t>(head.size()), tail.data(),
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
    auto read = [connection = connection_, count] {
        Bytes buffer(count);
        bool ok = usbmux_tunnel_conn_recv(connection.get(), buffer.data(),
                                          static_cast<std::uint32_t>(count));
        return ok ? std::optional<Bytes>(std::move(buffer)) : std::nullopt;
    };
    std::optional<Bytes> received = co_await recvQueue_.run(std::move(read));
    if (!received) {
        throw disconnected();
    }
    co_return std::move(*received);
}

asio::awaitable<void> UsbMuxTunnelTransport::close() {
    auto invalidate = [connection = connection_] {
        usbmux_tunnel_conn_invalidate(connection.get());
    };
    co_await sendQueue_.run(std::move(invalidate));
}

}  // namespace skiff::tunnel
