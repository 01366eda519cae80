#pragma once

#include <asio.hpp>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sim/device_table.hpp"
#include "sim/port_listener.hpp"
#include "sim/reporter.hpp"

namespace skiff::sim {

class MuxConnection;

// Serves the usbmuxd protocol on a Unix socket: device lists, event streams for
// listening clients, and Connect, after which the client's socket belongs to the app
// listening on the requested port.
class MuxServer {
public:
    MuxServer(asio::io_context& io, std::string socketPath, DeviceTable& devices,
              ListenerRegistry& listeners, Reporter report);
    ~MuxServer();
    MuxServer(const MuxServer&) = delete;
    MuxServer& operator=(const MuxServer&) = delete;

    // Binds (replacing a stale socket file) and starts accepting; throws std::system_error.
    void start();

    // Tell every listening client; a detach also cuts the device's app connections,
    // as pulling the cable would.
    void deviceAttached(const SimDevice& device);
    void deviceDetached(const SimDevice& device);

    // Closes the device-side streams (all, or those through one handle); returns how many.
    size_t dropConnections(std::optional<uint32_t> handle);

    // The device-side streams still open.
    std::vector<AppConnectionInfo> appConnections() const;

private:
    struct AppLink {
        AppConnectionInfo info;
        std::weak_ptr<AppSocket> socket;
    };

    asio::awaitable<void> serve(std::shared_ptr<MuxConnection> connection);
    // Returns true when the connection was handed to an app.
    // The caller keeps the connection alive across the call.
    asio::awaitable<bool> connect(MuxConnection& connection, uint32_t tag, uint32_t deviceId,
                                  uint16_t port);
    void startListening(const std::shared_ptr<MuxConnection>& connection, uint32_t tag);
    void broadcast(const std::vector<uint8_t>& message);

    asio::io_context& io_;
    std::string socketPath_;
    DeviceTable& devices_;
    ListenerRegistry& listeners_;
    Reporter report_;
    asio::local::stream_protocol::acceptor acceptor_;
    std::vector<std::weak_ptr<MuxConnection>> eventStreams_;
    std::vector<AppLink> appLinks_;
};

}  // namespace skiff::sim
