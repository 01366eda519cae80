#include "tunnel/usbmux_tunnel_transport.hpp"

#include <gtest/gtest.h>

#include <cstring>

#include "tunnel_test_support.hpp"

namespace skiff::tunnel {
namespace {

using skiff::testing::runSync;

tunnel_id tunnelTo(const char* udid, std::uint16_t port) {
    tunnel_id id{};
    std::strncpy(id.udid, udid, sizeof(id.udid) - 1);
    id.port = port;
    return id;
}

TEST(UsbMuxTunnelTransport, QueuesAreLabelledByPort) {
    UsbMuxTunnelTransport relay(tunnelTo("", 33325));
    UsbMuxTunnelTransport other(tunnelTo("", 8080));
    EXPECT_EQ(relay.sendQueueLabel(), "Mox.Harbor.usbmux-tunnel.33325.send");
    EXPECT_EQ(relay.recvQueueLabel(), "Mox.Harbor.usbmux-tunnel.33325.recv");
    EXPECT_EQ(other.sendQueueLabel(), "Mox.Harbor.usbmux-tunnel.8080.send");
    EXPECT_NE(relay.recvQueueLabel(), other.recvQueueLabel());
}

TEST(UsbMuxTunnelTransport, NativeFailuresSurfaceAsDisconnected) {
    // Without a started manager every native transfer fails.
    runtime::IoRuntime runtime(1);
    runtime.start();
    auto transport = std::make_shared<UsbMuxTunnelTransport>(tunnelTo("no-such-device", 33325));
    auto caseOf = [&](auto call) {
        try {
            runSync(runtime.executor(), call());
        } catch (const TunnelTransportError& e) {
            return e.errorCase();
        }
        return TunnelTransportError::Case::ioFailed;
    };
    EXPECT_EQ(caseOf([&] {
                  return transport->send(Bytes{1, 2});
              }),
              TunnelTransportError::Case::disconnected);
    EXPECT_EQ(caseOf([&] { return transport->send({}); }),
              TunnelTransportError::Case::disconnected);
    EXPECT_EQ(caseOf([&] {
                  return [](std::shared_ptr<UsbMuxTunnelTransport> t) -> asio::awaitable<void> {
                      co_await t->receive(16);
                  }(transport);
              }),
              TunnelTransportError::Case::disconnected);
    EXPECT_NO_THROW(runSync(runtime.executor(), transport->close()));
    runtime.stop();
}

}  // namespace
}  // namespace skiff::tunnel
