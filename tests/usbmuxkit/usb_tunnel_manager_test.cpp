#include "usbmuxkit/usb_tunnel_manager.hpp"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "fake_usbmux.hpp"

namespace usbmuxkit {
namespace {

using testing::FakeUsbmux;
using Connects = std::vector<std::pair<uint32_t, uint16_t>>;

class UsbTunnelManagerTest : public ::testing::Test {
protected:
    FakeUsbmux fake;  // declared first: outlives the manager
    UsbTunnelManager manager;
};

TEST_F(UsbTunnelManagerTest, StartSubscribesOnceAndShutdownUndoesEverything) {
    manager.shutdown();  // before start: nothing to undo
    EXPECT_EQ(fake.unsubscribeCalls, 0);
    EXPECT_TRUE(manager.currentTunnels().empty());

    fake.setDevices({{4, "A"}});
    // A failed subscription leaves the manager stopped.
    fake.subscribeResult = -1;
    EXPECT_FALSE(manager.start());
    EXPECT_FALSE(manager.ensureTunnel("A", 1));
    EXPECT_TRUE(fake.connects.empty());
    fake.subscribeResult = 0;

    // Devices announced while subscribing reach the callback.
    fake.announceOnSubscribe = true;
    int events = 0;
    manager.setDeviceEventCallback([&](const DeviceEvent&) { ++events; });
    ASSERT_TRUE(manager.start());
    ASSERT_TRUE(manager.start());
    EXPECT_EQ(fake.subscribeCalls, 2);
    EXPECT_EQ(events, 1);
    ASSERT_TRUE(manager.ensureTunnel("A", 1));
    const int fd = manager.sessionFor("A", 1)->fd();
    manager.shutdown();
    EXPECT_EQ(fake.unsubscribeCalls, 1);
    EXPECT_EQ(fake.disconnects, std::vector<int>{fd});
    EXPECT_FALSE(manager.isTunnelConnected("A", 1));
    fake.fire(1, 4, "A");
    EXPECT_EQ(events, 1);

    // Restartable; the callback did not survive the shutdown.
    ASSERT_TRUE(manager.start());
    fake.fire(1, 4, "A");
    EXPECT_EQ(events, 1);
}

TEST_F(UsbTunnelManagerTest, EmptyUdidMeansTheFirstListedDeviceWithAUdid) {
    ASSERT_TRUE(manager.start());
    EXPECT_FALSE(manager.ensureTunnel("", 7));  // nothing attached
    EXPECT_TRUE(fake.connects.empty());

    fake.setDevices({{1, ""}, {2, "B"}, {3, "C"}});
    fake.fire(1, 2, "B");
    ASSERT_TRUE(manager.ensureTunnel("", 7));
    EXPECT_EQ(fake.connects, (Connects{{2, 7}}));
    EXPECT_TRUE(manager.isTunnelConnected("B", 7));
    EXPECT_EQ(manager.sessionFor("", 7), manager.sessionFor("B", 7));
    ASSERT_EQ(manager.currentTunnels().size(), 1u);
    EXPECT_EQ(manager.currentTunnels()[0], (TunnelKey{"B", 7}));

    // A named device that is not listed is not connected, and an old entry goes.
    ASSERT_TRUE(manager.ensureTunnel("C", 7));
    fake.setDevices({{2, "B"}});
    fake.fire(2, 3, "C");
    EXPECT_FALSE(manager.ensureTunnel("C", 7));
    EXPECT_EQ(fake.connects.size(), 2u);
}

TEST_F(UsbTunnelManagerTest, EnsureReusesALiveTunnelUntilInvalidatedOrReplugged) {
    fake.setDevices({{5, "A"}});
    ASSERT_TRUE(manager.start());
    ASSERT_TRUE(manager.ensureTunnel("A", 9));
    const int firstFd = manager.sessionFor("A", 9)->fd();
    ASSERT_TRUE(manager.ensureTunnel("A", 9));
    EXPECT_EQ(fake.connects.size(), 1u);
    manager.invalidateSession("", 9);
    EXPECT_EQ(manager.sessionFor("A", 9), nullptr);
    ASSERT_TRUE(manager.ensureTunnel("A", 9));
    const int oldFd = manager.sessionFor("A", 9)->fd();

    fake.setDevices({{6, "A"}});
    fake.fireFromThread(1, 6, "A");
    EXPECT_FALSE(manager.isTunnelConnected("A", 9));
    EXPECT_EQ(fake.disconnects, (std::vector<int>{firstFd, oldFd}));
    ASSERT_TRUE(manager.ensureTunnel("A", 9));
    EXPECT_EQ(fake.connects, (Connects{{5, 9}, {5, 9}, {6, 9}}));
    EXPECT_TRUE(manager.isTunnelConnected("A", 9));

    // A failed listing empties the list, which prunes every tunnel.
    fake.listResult = -5;
    fake.fire(2, 6, "A");
    EXPECT_TRUE(manager.currentTunnels().empty());
}

TEST_F(UsbTunnelManagerTest, EventsRefreshTheListAndReachTheCallbackOnlyWithAUdid) {
    std::vector<std::pair<int, std::string>> seen;
    manager.setDeviceEventCallback(
        [&](const DeviceEvent& event) { seen.emplace_back(event.eventType, event.udid); });
    ASSERT_TRUE(manager.start());
    const int listed = fake.listCalls;
    const std::string longest(44, 'u');  // the library's field is full, with no NUL

    fake.fireFromThread(1, 3, "");
    fake.fireFromThread(3, 3, longest);
    EXPECT_EQ(fake.listCalls, listed + 2);
    EXPECT_EQ(seen, (std::vector<std::pair<int, std::string>>{{3, longest}}));

    manager.clearDeviceEventCallback();
    fake.fire(2, 3, "X");
    EXPECT_EQ(seen.size(), 1u);
}

}  // namespace
}  // namespace usbmuxkit
