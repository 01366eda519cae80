#include <algorithm>
#include <future>
#include <random>
#include <string>
#include <thread>

#include "integration/usbmux_harness.hpp"

namespace skiff::test {
namespace {

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
// The tunnel is opened first: a sender and a receiver that both found it missing would
// both connect.
std::vector<uint8_t> echo(const tunnel_id& id, const std::vector<uint8_t>& data) {
    std::vector<uint8_t> back(data.size());
    EXPECT_TRUE(usbmux_tunnel_ensure(id));
    auto receiver = std::async(std::launch::async, [&] {
        return usbmux_tunnel_recv(id, back.data(), uint32_t(back.size()));
    });
    bool sent = usbmux_tunnel_send(id, data.data(), uint32_t(data.size()));
    if (receiver.wait_for(kTransferTimeout) != std::future_status::ready) {
        ADD_FAILURE() << "echo did not come back";
        usbmux_mgr_invalidate_tunnel(id);  // wakes the receiver so the test can end
    }
    EXPECT_TRUE(sent);
    EXPECT_TRUE(receiver.get());
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
    ASSERT_TRUE(usbmux_tunnel_ensure(id));
    ASSERT_EQ(phone_->drop(), 1u);
    uint8_t byte = 0;
    EXPECT_FALSE(usbmux_tunnel_recv(id, &byte, 1));

    // A receive blocked on a live stream fails when the device is pulled.
    usbmux_mgr_invalidate_tunnel(id);
    ASSERT_TRUE(usbmux_tunnel_ensure(id));
    auto blocked = std::async(std::launch::async, [&] {
        uint8_t b = 0;
        return usbmux_tunnel_recv(id, &b, 1);
    });
    phone_->detach("phone-A");
    ASSERT_EQ(blocked.wait_for(kTransferTimeout), std::future_status::ready);
    EXPECT_FALSE(blocked.get());
    ASSERT_TRUE(EventLog::instance().waitFor(kDeviceRemoved, "phone-A"));
    EXPECT_FALSE(usbmux_mgr_check_connected(id));
    EXPECT_FALSE(usbmux_tunnel_ensure(id));
}

}  // namespace
}  // namespace skiff::test
