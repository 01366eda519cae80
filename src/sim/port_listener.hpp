#pragma once

// The simulated phone's apps: one listener per device-side TCP port. When a client's
// Connect succeeds, the mux socket itself becomes the byte stream to the app, so a
// listener is handed that connected Unix stream socket. It shares ownership of the
// socket with nobody that reads or writes it; the mux server keeps only a weak
// reference so it can close the socket when the device goes away.

#include <asio.hpp>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace skiff::sim {

using AppSocket = asio::local::stream_protocol::socket;

struct AppConnectionInfo {
    std::string udid;
    uint32_t handle = 0;
    uint16_t port = 0;
};

using PortListener = std::function<void(std::shared_ptr<AppSocket>, const AppConnectionInfo&)>;

class ListenerRegistry {
public:
    void listen(uint16_t port, PortListener listener) { listeners_[port] = std::move(listener); }
    void remove(uint16_t port) { listeners_.erase(port); }
    // Null when nothing listens on the port (the connect is refused).
    const PortListener* find(uint16_t port) const {
        auto it = listeners_.find(port);
        return it == listeners_.end() ? nullptr : &it->second;
    }

private:
    std::map<uint16_t, PortListener> listeners_;
};

// Sends back head, then every byte it receives, until the client closes. The one echo of
// the phone: the echo port's listener and the companion app's answer to a connection
// that speaks none of its protocols.
asio::awaitable<void> serveEcho(std::shared_ptr<AppSocket> socket, std::string head);

// Serves each connection with serveEcho.
PortListener makeEchoListener();

}  // namespace skiff::sim
