#include <array>

#include "common/task.hpp"
#include "sim/port_listener.hpp"

namespace skiff::sim {

asio::awaitable<void> serveEcho(std::shared_ptr<AppSocket> socket, std::string head) {
    std::array<char, 65536> buffer{};
    try {
        co_await asio::async_write(*socket, asio::buffer(head), asio::use_awaitable);
        for (;;) {
            size_t n = co_await socket->async_read_some(asio::buffer(buffer), asio::use_awaitable);
            co_await asio::async_write(*socket, asio::buffer(buffer.data(), n),
                                       asio::use_awaitable);
        }
    } catch (const std::system_error&) {
        // Peer gone.
    }
}

PortListener makeEchoListener() {
    return [](std::shared_ptr<AppSocket> socket, const AppConnectionInfo&) {
        auto executor = socket->get_executor();
        runtime::spawnTask(executor, std::move(socket), &serveEcho, std::string());
    };
}

}  // namespace skiff::sim
