#include <string>

#include "integration/usbmux_harness.hpp"

namespace skiff::test {
namespace {

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

    // The next send reconnects. Two bytes fit the socket buffers, so one thread can send
    // and then read the echo.
    ASSERT_TRUE(usbmux_tunnel_send(id, "ok", 2));
    char back[2] = {};
    ASSERT_TRUE(usbmux_tunnel_recv(id, back, 2));
    EXPECT_EQ(std::string(back, 2), "ok");
    open = phone_->connections();
    ASSERT_EQ(open.size(), 1u);
    EXPECT_EQ(open[0].handle, newHandle);
    EXPECT_NE(newHandle, oldHandle);
}

}  // namespace
}  // namespace skiff::test
