#pragma once
// Runs the native layer against a simulated phone through the real libusbmuxd.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "support/simulated_phone.hpp"
#include "usbmuxkit/usbmux_flat.h"

namespace skiff::test {

inline constexpr uint16_t kEchoPort = 33325;
inline constexpr auto kEventTimeout = std::chrono::seconds(20);

struct SeenEvent {
    int32_t type = 0;
    std::string udid;
};

// Collects device events from libusbmuxd's event thread; the callback is a plain
// function, so the collector is process-wide (each test case runs in its own process).
class EventLog {
public:
    static EventLog& instance() {
        static EventLog log;
        return log;
    }
    static void callback(const DeviceEvent* event) {
        auto& log = instance();
        std::lock_guard lock(log.mutex_);
        log.events_.push_back({event->eventType, event->udid});
        log.changed_.notify_all();
    }

    // True once an event of this type and UDID has been seen.
    bool waitFor(int32_t type, const std::string& udid) {
        return waitUntil([&](const std::vector<SeenEvent>& events) {
            return std::any_of(events.begin(), events.end(), [&](const SeenEvent& e) {
                return e.type == type && e.udid == udid;
            });
        });
    }
    bool waitUntil(const std::function<bool(const std::vector<SeenEvent>&)>& done) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kEventTimeout, [&] { return done(events_); });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<SeenEvent> events_;
};

inline constexpr int32_t kDeviceAdded = 1;
inline constexpr int32_t kDeviceRemoved = 2;

// True when the events hold a removal of udid followed later by its arrival.
inline bool replugged(const std::vector<SeenEvent>& events, const std::string& udid) {
    bool removed = false;
    for (const auto& e : events) {
        removed = removed || (e.type == kDeviceRemoved && e.udid == udid);
        if (removed && e.type == kDeviceAdded && e.udid == udid) {
            return true;
        }
    }
    return false;
}

inline tunnel_id tunnelTo(const std::string& udid, uint16_t port = kEchoPort) {
    tunnel_id id{};
    std::strncpy(id.udid, udid.c_str(), sizeof(id.udid) - 1);
    id.port = port;
    return id;
}

class UsbMuxIntegration : public testing::Test {
protected:
    void startPhone(std::vector<std::string> devices) {
        // Named explicitly: the echo app is what these tests talk to, whatever the default.
        phone_ = std::make_unique<SimulatedPhone>(
            std::move(devices), std::vector<std::string>{"--echo-port", std::to_string(kEchoPort)});
    }
    // Starts the layer and returns once libusbmuxd's event stream is up, which it reports
    // by announcing the device already present: changes before that are never evented.
    void startAndWaitForEvents(const std::string& presentUdid) {
        usbmux_mgr_set_device_event_callback(&EventLog::callback);
        ASSERT_TRUE(usbmux_mgr_start());
        ASSERT_TRUE(EventLog::instance().waitFor(kDeviceAdded, presentUdid));
    }
    void TearDown() override { usbmux_mgr_shutdown(); }

    std::unique_ptr<SimulatedPhone> phone_;
};

}  // namespace skiff::test
