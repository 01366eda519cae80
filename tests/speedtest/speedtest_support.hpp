#pragma once
// A simulated phone, a runtime and the process-wide native manager for one test.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "common/run_sync.hpp"
#include "common/started_runtime.hpp"
#include "sim/sim_phone.hpp"
#include "support/simulated_phone.hpp"
#include "usbmuxkit/usbmux_flat.h"

namespace skiff::test {

inline constexpr std::uint16_t kAppPort = sim::kCompanionAppPort;

class PhoneTest : public ::testing::Test {
protected:
    void TearDown() override { usbmux_mgr_shutdown(); }

    void startPhone(std::vector<std::string> devices, std::vector<std::string> args = {}) {
        phone_ = std::make_unique<SimulatedPhone>(std::move(devices), std::move(args));
    }
    // Runs a control command that must succeed; returns its data lines.
    std::vector<std::string> control(const std::string& line) {
        auto reply = phone_->command(line);
        EXPECT_TRUE(reply.ok) << line << ": " << reply.error;
        return reply.lines;
    }
    template <class T>
    T run(asio::awaitable<T> task) {
        return skiff::testing::runSync(runtime_.executor(), std::move(task));
    }

    skiff::testing::StartedRuntime runtime_;
    std::unique_ptr<SimulatedPhone> phone_;
};

// The tunnel to the app on the first listed device.
inline tunnel_id firstDeviceTunnel() {
    tunnel_id id{};
    id.port = kAppPort;
    return id;
}

}  // namespace skiff::test
