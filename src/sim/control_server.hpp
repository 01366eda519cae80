#pragma once

#include <asio.hpp>
#include <functional>
#include <string>

#include "sim/control_command.hpp"

namespace skiff::sim {

// Accepts control clients on a Unix socket and runs each line through the handler.
class ControlServer {
public:
    using Handler = std::function<ControlReply(const ControlCommand&)>;

    ControlServer(asio::io_context& io, std::string socketPath, Handler handler);
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    // Binds (replacing a stale socket file) and starts accepting; throws std::system_error.
    void start();

private:
    asio::awaitable<void> serve(asio::local::stream_protocol::socket socket);

    asio::io_context& io_;
    std::string socketPath_;
    Handler handler_;
    asio::local::stream_protocol::acceptor acceptor_;
};

}  // namespace skiff::sim
