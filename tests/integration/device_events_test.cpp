#include <string>

#include "integration/usbmux_harness.hpp"

namespace skiff::test {
namespace {

TEST_F(UsbMuxIntegration, EventsFollowAttachDetachAndReplug) {
    startPhone({"phone-A"});
    startAndWaitForEvents("phone-A");
    auto& log = EventLog::instance();

    phone_->attach("phone-B");
    EXPECT_TRUE(log.waitFor(kDeviceAdded, "phone-B"));
    phone_->detach("phone-B");
    EXPECT_TRUE(log.waitFor(kDeviceRemoved, "phone-B"));
    phone_->replug("phone-A");
    EXPECT_TRUE(log.waitUntil([](const auto& events) { return replugged(events, "phone-A"); }));
}

TEST_F(UsbMuxIntegration, StartingTwiceSubscribesOnce) {
    startPhone({});
    ASSERT_TRUE(usbmux_mgr_start());
    ASSERT_TRUE(usbmux_mgr_start());
    usbmux_mgr_set_device_event_callback(&EventLog::callback);
    auto& log = EventLog::instance();

    phone_->attach("first");
    ASSERT_TRUE(log.waitFor(kDeviceAdded, "first"));
    // Events reach every subscriber in order, so once the second one is in, a duplicate
    // of the first would have arrived too.
    phone_->attach("second");
    ASSERT_TRUE(log.waitFor(kDeviceAdded, "second"));
    EXPECT_EQ(log.countOf(kDeviceAdded, "first"), 1u);
    EXPECT_EQ(log.countOf(kDeviceAdded, "second"), 1u);
}

TEST_F(UsbMuxIntegration, AnEmptyUdidNamesTheFirstListedDevice) {
    startPhone({});
    ASSERT_TRUE(usbmux_mgr_start());
    usbmux_mgr_set_device_event_callback(&EventLog::callback);
    auto& log = EventLog::instance();

    EXPECT_FALSE(usbmux_tunnel_ensure(tunnelTo("")));

    phone_->attach("first");
    phone_->attach("second");
    ASSERT_TRUE(log.waitFor(kDeviceAdded, "second"));

    ASSERT_TRUE(usbmux_tunnel_ensure(tunnelTo("")));
    auto open = phone_->connections();
    ASSERT_EQ(open.size(), 1u);
    EXPECT_EQ(open[0].udid, "first");
    EXPECT_EQ(open[0].port, kEchoPort);
    EXPECT_TRUE(usbmux_mgr_check_connected(tunnelTo("")));
    EXPECT_TRUE(usbmux_mgr_check_connected(tunnelTo("first")));
}

}  // namespace
}  // namespace skiff::test
