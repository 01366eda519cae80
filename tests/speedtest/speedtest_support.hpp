#pragma once
// A simulated phone, a runtime and the process-wide native manager for one test.

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <mutex>
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
    void SetUp() override {
        std::lock_guard lock(eventMutex_);
        events_.clear();
    }
    void TearDown() override { usbmux_mgr_shutdown(); }

    // Device events as "TYPE UDID", noted from any thread; process-wide, as libusbmuxd's
    // callback is a plain function.
    static void noteEvent(std::int32_t type, const std::string& udid) {
        std::lock_guard lock(eventMutex_);
        events_.push_back(std::to_string(type) + " " + udid);
    }
    static bool eventSeen(const std::string& entry) {
        return skiff::testing::eventually([&] {
            std::lock_guard lock(eventMutex_);
            return std::find(events_.begin(), events_.end(), entry) != events_.end();
        });
    }

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
    static inline std::mutex eventMutex_;
    static inline std::vector<std::string> events_;
};

// The tunnel to the app on the first listed device.
inline tunnel_id firstDeviceTunnel() {
    tunnel_id id{};
    id.port = kAppPort;
    return id;
}

}  // namespace skiff::test
