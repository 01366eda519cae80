#include "sim/control_server.hpp"

#include "sim/unix_acceptor.hpp"

namespace skiff::sim {

ControlServer::ControlServer(asio::io_context& io, std::string socketPath, Handler handler)
    : io_(io), socketPath_(std::move(socketPath)), handler_(std::move(handler)), acceptor_(io) {}

ControlServer::~ControlServer() {
    closeUnixAcceptor(acceptor_, socketPath_);
}

void ControlServer::start() {
    listenOnUnixSocket(acceptor_, socketPath_);
    asio::co_spawn(io_,
                   acceptUntilClosed(acceptor_,
                                     [this](UnixSocket socket) {
                                         asio::co_spawn(io_, serve(std::move(socket)),
                                                        asio::detached);
                                     }),
                   asio::detached);
}

asio::awaitable<void> ControlServer::serve(asio::local::stream_protocol::socket socket) {
    std::string pending;
    try {
        for (;;) {
            // A line longer than the limit fails the read and ends the connection.
            size_t n = co_await asio::async_read_until(
                socket, asio::dynamic_buffer(pending, kControlMaxLine), '\n', asio::use_awaitable);
            std::string line = pending.substr(0, n - 1);
            pending.erase(0, n);
            ControlReply reply;
            auto parsed = parseControlCommand(line);
            if (auto* error = std::get_if<std::string>(&parsed)) {
                reply = controlError(*error);
            } else {
                reply = handler_(std::get<ControlCommand>(parsed));
            }
            std::string text = formatControlReply(reply);
            co_await asio::async_write(socket, asio::buffer(text), asio::use_awaitable);
        }
    } catch (const std::system_error&) {
        // Client gone or line too long.
    }
}

}  // namespace skiff::sim
