#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "sim/control_command.hpp"
#include "support/child_process.hpp"

namespace skiff::test {

struct SimulatedConnection {
    uint32_t handle = 0;
    uint16_t port = 0;
    std::string udid;
};

// Runs `skiff-phone-sim serve` in a fresh temporary directory for the life of the
// object and points libusbmuxd in this process at it (USBMUXD_SOCKET_ADDRESS). The
// control methods throw std::runtime_error when the simulator refuses a command.
class SimulatedPhone {
public:
    explicit SimulatedPhone(std::vector<std::string> devices = {},
                            std::vector<std::string> extraArgs = {});
    ~SimulatedPhone();
    SimulatedPhone(const SimulatedPhone&) = delete;
    SimulatedPhone& operator=(const SimulatedPhone&) = delete;

    // "USBMUXD_SOCKET_ADDRESS=UNIX:..." for child processes that should see this phone.
    std::string muxEnvironment() const;

    sim::ControlReply command(const std::string& line);
    uint32_t attach(const std::string& udid);
    void detach(const std::string& udid);
    uint32_t replug(const std::string& udid);
    // The device-side streams currently open.
    std::vector<SimulatedConnection> connections();
    // Closes the device-side streams (of one device, or all); returns how many.
    size_t drop(const std::string& udid = {});

    // Stops the simulator (it removes its sockets) and starts it again in the same
    // directory with the same devices, as a restarted daemon would be; returns once
    // it is ready. stop() is harmless when stopped.
    void stop();
    void start();

    // Precondition: running().
    ChildProcess& process() { return *process_; }

private:
    // The reply to `line`, or std::runtime_error when the simulator refuses it.
    sim::ControlReply mustSucceed(const std::string& line);
    // The number a command answers with first (a handle or a count).
    std::uint32_t numberAnswering(const std::string& line);

    TempDir dir_;
    std::vector<std::string> argv_;
    std::unique_ptr<ChildProcess> process_;
};

}  // namespace skiff::test
