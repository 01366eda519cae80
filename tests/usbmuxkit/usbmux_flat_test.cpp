#include "usbmuxkit/usbmux_flat.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "fake_usbmux.hpp"

namespace usbmuxkit {
namespace {

using testing::FakeUsbmux;

tunnel_id idOf(const std::string& udid, uint16_t port) {
    tunnel_id id{};
    std::memcpy(id.udid, udid.data(), udid.size());
    id.port = port;
    return id;
}

class FlatInterfaceTest : public ::testing::Test {
protected:
    void SetUp() override { fake.setDevices({{5, "A"}}); }
    void TearDown() override { usbmux_mgr_shutdown(); }

    FakeUsbmux fake;
};

TEST_F(FlatInterfaceTest, CopyCurrentTunnelsOwnershipAndLimits) {
    EXPECT_EQ(usbmux_mgr_copy_current_tunnels(nullptr), -1);
    tunnel_id* list = reinterpret_cast<tunnel_id*>(0x1);
    EXPECT_EQ(usbmux_mgr_copy_current_tunnels(&list), 0);
    EXPECT_EQ(list, nullptr);

    const std::string longest(44, 'L');  // the longest UDID usbmuxd can report
    fake.setDevices({{5, "A"}, {6, longest}});
    ASSERT_TRUE(usbmux_mgr_start());
    ASSERT_TRUE(usbmux_tunnel_ensure(idOf(longest, 33325)));
    ASSERT_TRUE(usbmux_tunnel_ensure(idOf("", 80)));
    ASSERT_EQ(usbmux_mgr_copy_current_tunnels(&list), 2);
    ASSERT_NE(list, nullptr);
    const bool longestFirst = list[0].port == 33325;
    EXPECT_EQ(std::string(list[longestFirst ? 0 : 1].udid), longest);
    EXPECT_EQ(std::string(list[longestFirst ? 1 : 0].udid), "A");
    EXPECT_EQ(list[longestFirst ? 1 : 0].port, 80);
    usbmux_mgr_free_tunnels(list, 0);  // releases nothing: the free below would double up
    usbmux_mgr_free_tunnels(list, 2);
    usbmux_mgr_free_tunnels(nullptr, 3);
}

TEST_F(FlatInterfaceTest, NothingConnectsBeforeStartAndAfterItOnlyOpenDoes) {
    EXPECT_FALSE(usbmux_tunnel_ensure(idOf("A", 1)));
    EXPECT_EQ(usbmux_tunnel_conn_open(idOf("", 1)), nullptr);
    EXPECT_FALSE(usbmux_mgr_check_connected(idOf("A", 1)));
    ASSERT_TRUE(usbmux_mgr_start());
    EXPECT_EQ(usbmux_tunnel_conn_acquire(idOf("", 1)), nullptr);
    EXPECT_TRUE(fake.connects.empty());
    usbmux_tunnel_conn* conn = usbmux_tunnel_conn_open(idOf("", 1));
    EXPECT_FALSE(usbmux_tunnel_conn_send(conn, nullptr, 1));
    EXPECT_FALSE(usbmux_tunnel_conn_recv(conn, nullptr, 1));
    EXPECT_TRUE(usbmux_tunnel_conn_send(conn, nullptr, 0));
    EXPECT_EQ(fake.connects.size(), 1u);
    EXPECT_TRUE(fake.sendRequests.empty());
    EXPECT_TRUE(usbmux_mgr_check_connected(idOf("A", 1)));
    usbmux_tunnel_conn_release(conn);
}

DeviceEvent lastEvent;
int eventCount = 0;

TEST_F(FlatInterfaceTest, DeviceEventsReachTheRegisteredFunctionUntilCleared) {
    ASSERT_TRUE(usbmux_mgr_start());
    usbmux_mgr_set_device_event_callback([](const DeviceEvent* event) {
        lastEvent = *event;
        ++eventCount;
    });
    fake.fireFromThread(2, 5, "A");
    ASSERT_EQ(eventCount, 1);
    EXPECT_EQ(lastEvent.eventType, 2);
    EXPECT_STREQ(lastEvent.udid, "A");
    EXPECT_EQ(lastEvent.udid[47], '\0');
    usbmux_mgr_set_device_event_callback(nullptr);
    fake.fireFromThread(1, 5, "A");
    EXPECT_EQ(eventCount, 1);
}

}  // namespace
}  // namespace usbmuxkit
