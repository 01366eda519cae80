#pragma once
// A TunnelTransport over a connected stream socket (a socketpair end, or the socket
// the simulated usbmuxd hands to the simulated app).

#include <asio.hpp>
#include <memory>

#include "common/actor.hpp"
#include "common/async_mutex.hpp"
#include "tunnel/tunnel_transport.hpp"

namespace skiff::tunnel {

// Held by std::shared_ptr: its bodies hold it while they run.
class SocketTunnelTransport : public TunnelTransport,
                              public runtime::Actor,
                              public std::enable_shared_from_this<SocketTunnelTransport> {
public:
    // Takes ownership of fd. A descriptor that is not a usable socket makes every
    // call fail with disconnected.
    SocketTunnelTransport(asio::any_io_executor executor, int fd);

    asio::awaitable<void> send(Bytes head, SharedBytes tail) override;
    asio::awaitable<Bytes> receive(std::size_t count) override;
    asio::awaitable<void> close() override;

private:
    asio::awaitable<void> doSend(Bytes head, SharedBytes tail);
    asio::awaitable<Bytes> doReceive(std::size_t count);
    asio::awaitable<void> doClose();

    asio::generic::stream_protocol::socket socket_;
    // Sends take turns in call order, so whole buffers never interleave.
    runtime::AsyncMutex sending_;
};

}  // namespace skiff::tunnel
