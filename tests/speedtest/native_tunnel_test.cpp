// The native layer against a simulated phone through the real libusbmuxd.

#include <algorithm>
#include <cstring>
#include <future>
#include <random>

#include "speedtest/speedtest_support.hpp"

namespace skiff::test {
namespace {

using NativeTunnel = PhoneTest;

// Named explicitly: the echo app is what these tests talk to, whatever the default.
const std::vector<std::string> kEchoApp = {"--echo-port", std::to_string(kAppPort)};
constexpr auto kTransferTimeout = std::chrono::seconds(60);

tunnel_id tunnelTo(const std::string& udid, uint16_t port = kAppPort) {
    tunnel_id id{};
    std::strncpy(id.udid, udid.c_str(), sizeof(id.udid) - 1);
    id.port = port;
    return id;
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

TEST_F(NativeTunnel, TunnelsOpenToListedDevicesAndCarryBytesBothWays) {
    // 43 characters: the longest UDID libusbmuxd passes on whole.
    const std::string longUdid(43, 'f');
    startPhone({"phone-A", longUdid}, kEchoApp);
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
    EXPECT_TRUE(tunnels[0].port == kAppPort && tunnels[1].port == kAppPort);
    usbmux_mgr_free_tunnels(tunnels, count);
    std::sort(udids.begin(), udids.end());
    EXPECT_EQ(udids, (std::vector<std::string>{longUdid, "phone-A"}));

    // More than two of the layer's 256 KiB requests, ending in a partial one.
    std::mt19937 rng(42);
    std::vector<uint8_t> data(600000);
    std::generate(data.begin(), data.end(), [&] { return uint8_t(rng()); });
    EXPECT_EQ(echo(id, data), data);
    EXPECT_EQ(phone_->connections().size(), 2u) << "the transfer reused the tunnel";

    usbmux_mgr_invalidate_tunnel(id);
    EXPECT_FALSE(usbmux_mgr_check_connected(id));
    EXPECT_TRUE(usbmux_mgr_check_connected(tunnelTo(longUdid)));
    EXPECT_EQ(echo(id, {'h', 'i'}), (std::vector<uint8_t>{'h', 'i'}));
}

TEST_F(NativeTunnel, ThePhoneClosingTheStreamOrLeavingFailsReceives) {
    startPhone({"phone-A"}, kEchoApp);
    usbmux_mgr_set_device_event_callback(
        [](const DeviceEvent* event) { noteEvent(event->eventType, event->udid); });
    ASSERT_TRUE(usbmux_mgr_start());
    // Changes before libusbmuxd's event stream is up are never evented; it is up once it
    // announces the device already there.
    ASSERT_TRUE(eventSeen("1 phone-A"));
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
    ASSERT_TRUE(eventSeen("2 phone-A"));
    EXPECT_FALSE(usbmux_mgr_check_connected(id));
    EXPECT_FALSE(usbmux_tunnel_ensure(id));
}

}  // namespace
}  // namespace skiff::test
