#include "tunnel/usbmux_tunnel_transport.hpp"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>

#include "common/started_runtime.hpp"
#include "tunnel_test_support.hpp"
#include "usbmuxkit/fake_usbmux.hpp"
#include "usbmuxkit/usb_tunnel_manager.hpp"

namespace skiff::tunnel {
namespace {

using skiff::testing::runSync;

tunnel_id tunnelTo(const char* udid, std::uint16_t port) {
    tunnel_id id{};
    std::strncpy(id.udid, udid, sizeof(id.udid) - 1);
    id.port = port;
    return id;
}

class UsbMuxTunnelTransportOnFakeMux : public ::testing::Test {
protected:
    void SetUp() override {
        fake.setDevices({{5, "A"}});
        ASSERT_TRUE(usbmux_mgr_start());
    }
    void TearDown() override {
        usbmux_mgr_shutdown();
        runtime.stop();
    }

    usbmuxkit::testing::FakeUsbmux fake;
    skiff::testing::StartedRuntime runtime{1};
};

// A transport keeps to the connection it was made on. Once its tunnel has been dropped and
// connected anew, whatever the old transport still sends, reads or closes fails with
// disconnected and leaves the new connection alone: a request the service gave up on
// must not be answered into the new tunnel, nor a read steal the new tunnel's bytes.
TEST_F(UsbMuxTunnelTransportOnFakeMux, AStaleTransportNeverTouchesTheConnectionThatReplacedIt) {
    const tunnel_id id = tunnelTo("A", 33325);
    ASSERT_TRUE(usbmux_tunnel_ensure(id));
    auto stale = std::make_shared<UsbMuxTunnelTransport>(id);
    usbmux_mgr_invalidate_tunnel(id);
    ASSERT_TRUE(usbmux_tunnel_ensure(id));
    auto fresh = std::make_shared<UsbMuxTunnelTransport>(id);
    const int freshFd = usbmuxkit::UsbTunnelManager::shared().sessionFor("A", 33325)->fd();
    testing::Peer phone(::dup(fake.peerOf(freshFd)));

    auto caseOf = [&](auto call) {
        return testing::errorCaseOf<TunnelTransportError>(
            [&] { runSync(runtime.executor(), call()); });
    };
    const auto disconnected = TunnelTransportError::Case::disconnected;
    phone.write(Bytes{7, 8});
    EXPECT_EQ(caseOf([&] { return stale->send(Bytes{1, 2}, Bytes{3}); }), disconnected);
    EXPECT_EQ(caseOf([&] { return stale->receive(2); }), disconnected);
    EXPECT_NO_THROW(runSync(runtime.executor(), stale->close()));
    EXPECT_TRUE(usbmux_mgr_check_connected(id)) << "the stale close dropped the new tunnel";

    EXPECT_EQ(runSync(runtime.executor(), fresh->receive(2)), (Bytes{7, 8}));
    runSync(runtime.executor(), fresh->send(Bytes{4}, Bytes{5}));
    Bytes arrived;
    ASSERT_TRUE(phone.read(arrived, 2));
    EXPECT_EQ(arrived, (Bytes{4, 5})) << "the stale send reached the new connection";
}

}  // namespace
}  // namespace skiff::tunnel
