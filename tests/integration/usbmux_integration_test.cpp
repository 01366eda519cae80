// Runs the native layer against a simulated phone through the real libusbmuxd.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/simulated_phone.hpp"
#include "usbmuxkit/usbmux_flat.h"

namespace skiff::test {
namespace {

constexpr uint16_t kEchoPort = 33325;
constexpr auto kEventTimeout = std::chrono::seconds(20);

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

constexpr int32_t kDeviceAdded = 1;
constexpr int32_t kDeviceRemoved = 2;

// True when the events hold a removal of udid followed later by its arrival.
bool replugged(const std::vector<SeenEvent>& events, const std::string& udid) {
    bool removed = false;
    for (const auto& e : events) {
        removed = removed || (e.type == kDeviceRemoved && e.udid == udid);
        if (removed && e.type == kDeviceAdded && e.udid == udid) {
            return true;
        }
    }
    return false;
}

tunnel_id tunnelTo(const std::string& udid, uint16_t port = kEchoPort) {
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

constexpr auto kTransferTimeout = std::chrono::seconds(60);

std::vector<uint8_t> randomBytes(size_t n) {
    std::mt19937 rng(42);
    std::vector<uint8_t> out(n);
    for (auto& b : out) {
        b = uint8_t(rng());
    }
    return out;
}

// Sends through the echo app and reads the same bytes back on a second thread, as the
// socket buffers cannot hold a large message while nobody reads the echo.
std::vector<uint8_t> echo(const tunnel_id& id, const std::vector<uint8_t>& data) {
    std::vector<uint8_t> back(data.size());
    usbmux_tunnel_conn* conn = usbmux_tunnel_conn_open(id);
    auto receiver = std::async(std::launch::async, [&] {
        return usbmux_tunnel_conn_recv(conn, back.data(), uint32_t(back.size()));
    });
    bool sent = usbmux_tunnel_conn_send(conn, data.data(), uint32_t(data.size()));
    if (receiver.wait_for(kTransferTimeout) != std::future_status::ready) {
        ADD_FAILURE() << "echo did not come back";
        usbmux_tunnel_conn_invalidate(conn);  // wakes the receiver so the test can end
    }
    EXPECT_TRUE(sent);
    EXPECT_TRUE(receiver.get());
    usbmux_tunnel_conn_release(conn);
    return back;
}

TEST_F(UsbMuxIntegration, TunnelsOpenToListedDevicesAndCarryBytesBothWays) {
    // 43 characters: the longest UDID libusbmuxd passes on whole.
    const std::string longUdid(43, 'f');
    startPhone({"phone-A", longUdid});
    auto id = tunnelTo("phone-A");
    EXPECT_FALSE(usbmux_tunnel_ensure(id)) << "not started";
    ASSERT_TRUE(usbmux_mgr_start());

    ASSERT_TRUE(usbmux_tunnel_ensure(id));
    ASSERT_TRUE(usbmux_tunnel_ensure(id));
    EXPECT_EQ(phone_->connections().size(), 1u);
    EXPECT_FALSE(usbmux_tunnel_ensure(tunnelTo("phone-A", 1234))) << "nothing listens there";
    EXPECT_FALSE(usbmux_tunnel_ensure(tunnelTo("not-attached")));
    ASSERT_TRUE(usbmux_tunnel_ensure(tunnelTo(longUdid)));

    tunnel_id* tunnels = nullptr;
    int32_t count = usbmux_mgr_copy_current_tunnels(&tunnels);
    ASSERT_EQ(count, 2);
    std::vector<std::string> udids{tunnels[0].udid, tunnels[1].udid};
    EXPECT_TRUE(tunnels[0].port == kEchoPort && tunnels[1].port == kEchoPort);
    usbmux_mgr_free_tunnels(tunnels, count);
    std::sort(udids.begin(), udids.end());
    EXPECT_EQ(udids, (std::vector<std::string>{longUdid, "phone-A"}));

    // More than two of the layer's 256 KiB requests, ending in a partial one.
    auto data = randomBytes(600000);
    EXPECT_EQ(echo(id, data), data);
    EXPECT_EQ(phone_->connections().size(), 2u) << "the transfer reused the tunnel";

    usbmux_mgr_invalidate_tunnel(id);
    EXPECT_FALSE(usbmux_mgr_check_connected(id));
    EXPECT_TRUE(usbmux_mgr_check_connected(tunnelTo(longUdid)));
    EXPECT_EQ(echo(id, {'h', 'i'}), (std::vector<uint8_t>{'h', 'i'}));
}

TEST_F(UsbMuxIntegration, ThePhoneClosingTheStreamFailsReceives) {
    startPhone({"phone-A"});
    startAndWaitForEvents("phone-A");
    auto id = tunnelTo("phone-A");
    usbmux_tunnel_conn* dropped = usbmux_tunnel_conn_open(id);
    ASSERT_EQ(phone_->drop(), 1u);
    uint8_t byte = 0;
    EXPECT_FALSE(usbmux_tunnel_conn_recv(dropped, &byte, 1));
    usbmux_tunnel_conn_release(dropped);

    // A receive blocked on a live stream fails when the device is pulled.
    usbmux_mgr_invalidate_tunnel(id);
    usbmux_tunnel_conn* live = usbmux_tunnel_conn_open(id);
    auto blocked = std::async(std::launch::async, [&] {
        uint8_t b = 0;
        return usbmux_tunnel_conn_recv(live, &b, 1);
    });
    phone_->detach("phone-A");
    ASSERT_EQ(blocked.wait_for(kTransferTimeout), std::future_status::ready);
    EXPECT_FALSE(blocked.get());
    usbmux_tunnel_conn_release(live);
    ASSERT_TRUE(EventLog::instance().waitFor(kDeviceRemoved, "phone-A"));
    EXPECT_FALSE(usbmux_mgr_check_connected(id));
    EXPECT_FALSE(usbmux_tunnel_ensure(id));
}

TEST_F(UsbMuxIntegration, EventsFollowAttachDetachAndAReplugDropsTheTunnel) {
    startPhone({"phone-A"});
    startAndWaitForEvents("phone-A");
    auto& log = EventLog::instance();

    phone_->attach("phone-B");
    ASSERT_TRUE(log.waitFor(kDeviceAdded, "phone-B"));
    // An empty UDID names the first listed device, which is the one attached first.
    ASSERT_TRUE(usbmux_tunnel_ensure(tunnelTo("")));
    auto open = phone_->connections();
    ASSERT_EQ(open.size(), 1u);
    EXPECT_EQ(open[0].udid, "phone-A");
    EXPECT_EQ(open[0].port, kEchoPort);
    const uint32_t oldHandle = open[0].handle;
    const auto id = tunnelTo("phone-A");
    EXPECT_TRUE(usbmux_mgr_check_connected(id));

    phone_->detach("phone-B");
    EXPECT_TRUE(log.waitFor(kDeviceRemoved, "phone-B"));

    const uint32_t newHandle = phone_->replug("phone-A");
    ASSERT_TRUE(log.waitUntil([](const auto& events) { return replugged(events, "phone-A"); }));
    EXPECT_FALSE(usbmux_mgr_check_connected(id));

    // The next connection is a new one, to the new handle.
    EXPECT_EQ(echo(id, {'o', 'k'}), (std::vector<uint8_t>{'o', 'k'}));
    open = phone_->connections();
    ASSERT_EQ(open.size(), 1u);
    EXPECT_EQ(open[0].handle, newHandle);
    EXPECT_NE(newHandle, oldHandle);
}

}  // namespace
}  // namespace skiff::test
