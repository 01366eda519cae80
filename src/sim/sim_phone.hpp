#pragma once

#include <asio.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sim/companion_app.hpp"
#include "sim/control_command.hpp"
#include "sim/control_server.hpp"
#include "sim/device_table.hpp"
#include "sim/mux_server.hpp"
#include "sim/port_listener.hpp"
#include "sim/reporter.hpp"
#include "sim/storage_watcher.hpp"

namespace skiff::sim {

inline constexpr uint16_t kEchoPort = 33326;

struct SimPhoneOptions {
    std::string dir;                   // gets usbmuxd.sock and control.sock
    std::vector<std::string> devices;  // attached at start, in this order
    std::optional<uint16_t> appPort = kCompanionAppPort;
    // Echo wins over the app when both are given the same port.
    std::optional<uint16_t> echoPort = kEchoPort;
    std::string storage;  // the folder the app's look-ups and transfers use; none when empty
    // Each item created or deleted in storage by hand is pushed as an itemMutation.
    bool watchStorage = false;
    LinkModel link;  // the USB link the app's framed connections go through
};

// The whole simulated phone on one io_context: the device table, the apps by port,
// the usbmuxd socket and the control socket.
class SimPhone {
public:
    SimPhone(asio::io_context& io, SimPhoneOptions options, Reporter report);
    ~SimPhone();
    SimPhone(const SimPhone&) = delete;
    SimPhone& operator=(const SimPhone&) = delete;

    // Binds both sockets and starts watching the storage; throws std::system_error.
    void start();

    ListenerRegistry& listeners() { return listeners_; }
    CompanionApp& app() { return app_; }
    const DeviceTable& devices() const { return devices_; }
    ControlReply execute(const ControlCommand& command);

    static std::string muxSocketPath(const std::string& dir) { return dir + "/usbmuxd.sock"; }
    static std::string controlSocketPath(const std::string& dir) { return dir + "/control.sock"; }

private:
    Reporter report_;
    DeviceTable devices_;
    ListenerRegistry listeners_;
    CompanionApp app_;
    MuxServer mux_;
    ControlServer control_;
    std::string watchedStorage_;  // empty: not watched
    std::shared_ptr<StorageWatcher> watcher_;
};

}  // namespace skiff::sim
