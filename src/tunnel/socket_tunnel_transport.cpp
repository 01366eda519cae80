#include "tunnel/socket_tunnel_transport.hpp"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <limits>

#include "common/check.hpp"
#include "tunnel/tunnel_errors.hpp"

namespace skiff::tunnel {
namespace {

TunnelTransportError disconnected() {
    return TunnelTransportError(TunnelTransportError::Case::disconnected);
}

}  // namespace

SocketTunnelTransport::SocketTunnelTransport(asio::any_io_executor executor, int fd)
    : Actor(executor), socket_(strand()) {
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        ::close(fd);
        return;
    }
    asio::error_code error;
    socket_.assign(asio::generic::stream_protocol(address.ss_family, SOCK_STREAM), fd, error);
    if (error) {
        ::close(fd);
    }
}

asio::awaitable<void> SocketTunnelTransport::send(Bytes head, SharedBytes tail) {
    return isolated(shared_from_this(), &SocketTunnelTransport::doSend, std::move(head),
                    std::move(tail));
}

asio::awaitable<void> SocketTunnelTransport::doSend(Bytes head, SharedBytes tail) {
    auto turn = co_await sending_.lock();
    asio::error_code error;
    if (!socket_.is_open()) {
        error = asio::error::bad_descriptor;
    } else {
        const std::array<asio::const_buffer, 2> pieces{asio::buffer(head),
                                                       asio::buffer(tail.data(), tail.size())};
        co_await asio::async_write(socket_, pieces,
                                   asio::redirect_error(asio::use_awaitable, error));
    }
    if (error) {
        throw disconnected();
    }
}

asio::awaitable<Bytes> SocketTunnelTransport::receive(std::size_t count) {
    if (count > std::numeric_limits<std::uint32_t>::max()) {
        fatalError("receive count over 32 bits");
    }
    return isolated(shared_from_this(), &SocketTunnelTransport::doReceive, count);
}

asio::awaitable<Bytes> SocketTunnelTransport::doReceive(std::size_t count) {
    Bytes buffer(count);
    if (count == 0) {
        co_return buffer;
    }
    if (!socket_.is_open()) {
        throw disconnected();
    }
    asio::error_code error;
    co_await asio::async_read(socket_, asio::buffer(buffer),
                              asio::redirect_error(asio::use_awaitable, error));
    if (error) {
        throw disconnected();
    }
    co_return buffer;
}

asio::awaitable<void> SocketTunnelTransport::close() {
    return isolated(shared_from_this(), &SocketTunnelTransport::doClose);
}

asio::awaitable<void> SocketTunnelTransport::doClose() {
    asio::error_code ignored;
    socket_.shutdown(asio::socket_base::shutdown_both, ignored);
    socket_.close(ignored);
    co_return;
}

}  // namespace skiff::tunnel
