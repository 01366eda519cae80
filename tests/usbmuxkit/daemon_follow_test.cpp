// The manager following a daemon that starts late, goes away and comes back. The fake
// stands for the daemon's socket through its `daemon` identity; the manager's watcher
// thread notices changes, so every check waits for it with a bound.

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "common/log.hpp"
#include "common/run_sync.hpp"
#include "fake_usbmux.hpp"
#include "usbmuxkit/usb_tunnel_manager.hpp"

namespace usbmuxkit {
namespace {

using skiff::testing::eventually;
using testing::FakeUsbmux;
using Seen = std::vector<std::pair<int, std::string>>;

class DaemonFollowTest : public ::testing::Test {
protected:
    void SetUp() override {
        manager.setDeviceEventCallback([this](const DeviceEvent& event) {
            std::lock_guard lock(mutex);
            seen.emplace_back(event.eventType, event.udid);
            changed.notify_all();
        });
    }

    // Waits until `count` events were seen; returns them all.
    Seen awaitEvents(size_t count) {
        std::unique_lock lock(mutex);
        changed.wait_for(lock, skiff::testing::kWaitLimit, [&] { return seen.size() >= count; });
        return seen;
    }

    skiff::log::LogCapture logs;
    FakeUsbmux fake;  // declared before the manager: outlives it
    UsbTunnelManager manager;
    std::mutex mutex;
    std::condition_variable changed;
    Seen seen;
};

TEST_F(DaemonFollowTest, StartedBeforeTheDaemonItSubscribesOnceTheDaemonAppears) {
    fake.daemon = 0;
    fake.setDevices({{4, "A"}});
    fake.announceOnSubscribe = true;
    ASSERT_TRUE(manager.start());
    EXPECT_EQ(fake.subscribeCalls, 0);
    EXPECT_TRUE(logs.contains("usbmuxd is not running; waiting for it"));

    // The first attempt after the socket appears fails; the watcher tries again.
    fake.subscribeResult = -1;
    fake.daemon = 7;
    ASSERT_TRUE(eventually([&] { return fake.subscribeCalls >= 2; }));
    fake.subscribeResult = 0;

    EXPECT_EQ(awaitEvents(1), (Seen{{UE_DEVICE_ADD, "A"}}));
    // Logged once the subscription is made, which is after its announcements.
    EXPECT_TRUE(
        eventually([&] { return logs.contains("usbmuxd appeared; listening for devices"); }));
    EXPECT_TRUE(manager.ensureTunnel("A", 1));
    EXPECT_EQ(fake.connects, (std::vector<std::pair<uint32_t, uint16_t>>{{4, 1}}));
}

TEST_F(DaemonFollowTest, ADaemonThatGoesAwayTakesItsDevicesAndItsSuccessorIsFollowed) {
    fake.setDevices({{4, "A"}, {5, "B"}});
    ASSERT_TRUE(manager.start());
    ASSERT_TRUE(manager.ensureTunnel("A", 1));
    const int tunnelFd = manager.sessionFor("A", 1)->fd();

    fake.setDevices({});
    fake.daemon = 0;
    EXPECT_EQ(awaitEvents(2), (Seen{{UE_DEVICE_REMOVE, "A"}, {UE_DEVICE_REMOVE, "B"}}));
    EXPECT_TRUE(logs.contains("usbmuxd went away"));
    EXPECT_EQ(fake.unsubscribeCalls, 1);
    EXPECT_FALSE(manager.isTunnelConnected("A", 1));
    // The dropped tunnel was closed (before the removals were told), not left behind.
    EXPECT_EQ(fake.disconnects, std::vector<int>{tunnelFd});

    // The new daemon numbers the phone anew; the tunnel goes to the new handle.
    fake.setDevices({{9, "A"}});
    fake.announceOnSubscribe = true;
    fake.daemon = 2;
    EXPECT_EQ(awaitEvents(3).back(), (std::pair<int, std::string>{UE_DEVICE_ADD, "A"}));
    EXPECT_EQ(fake.subscribeCalls, 2);
    ASSERT_TRUE(manager.ensureTunnel("A", 1));
    EXPECT_EQ(fake.connects.back(), (std::pair<uint32_t, uint16_t>{9, 1}));
}

TEST_F(DaemonFollowTest, ARestartNoticedAfterTheLibraryReportedTheLossRemovesEachDeviceOnce) {
    fake.setDevices({{4, "A"}});
    ASSERT_TRUE(manager.start());
    // The library's own report of the lost connection comes first.
    fake.setDevices({});
    fake.fire(UE_DEVICE_REMOVE, 4, "A");

    // Replaced without a gap in between: the watcher only sees another socket.
    fake.setDevices({{6, "A"}});
    fake.announceOnSubscribe = true;
    fake.daemon = 3;
    EXPECT_EQ(awaitEvents(2), (Seen{{UE_DEVICE_REMOVE, "A"}, {UE_DEVICE_ADD, "A"}}));
    ASSERT_TRUE(eventually([&] { return fake.subscribeCalls == 2; }));
    EXPECT_EQ(fake.unsubscribeCalls, 1);
}

TEST_F(DaemonFollowTest, ShutdownWhileWaitingEndsTheWatchAndStartFollowsAgain) {
    fake.daemon = 0;
    ASSERT_TRUE(manager.start());
    manager.shutdown();
    fake.daemon = 1;
    EXPECT_EQ(fake.subscribeCalls, 0);  // nothing runs after shutdown returns
    EXPECT_EQ(fake.unsubscribeCalls, 0);

    ASSERT_TRUE(manager.start());
    EXPECT_EQ(fake.subscribeCalls, 1);
}

}  // namespace
}  // namespace usbmuxkit
