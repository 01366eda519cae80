#include "tunnel/usbmux_tunnel_transport.hpp"

#include <gtest/gtest.h>

#include <cstring>

#include "common/started_runtime.hpp"
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

TEST(UsbMuxTunnelTransport, NativeFailuresMeanDisconnected) {
    // The runtime outlives the transport: the transport's thread may still be inside its
    // post to the io_context when the awaited call has already returned.
    skiff::testing::StartedRuntime runtime(1);
    // Without a started manager every native transfer fails.
    auto transport = std::make_shared<UsbMuxTunnelTransport>(tunnelTo("no-such-device", 33325));
    auto caseOf = [&](auto call) {
        return testing::errorCaseOf<TunnelTransportError>(
            [&] { runSync(runtime.executor(), call()); });
    };
    const auto disconnected = TunnelTransportError::Case::disconnected;
    EXPECT_EQ(caseOf([&] { return transport->send(Bytes{1, 2}, Bytes{3}); }), disconnected);
    EXPECT_EQ(caseOf([&] { return transport->send({}, {}); }), disconnected);
    EXPECT_EQ(caseOf([&] { return transport->receive(16); }), disconnected);
    EXPECT_NO_THROW(runSync(runtime.executor(), transport->close()));
    transport.reset();
    runtime.stop();
}

}  // namespace
}  // namespace skiff::tunnel
