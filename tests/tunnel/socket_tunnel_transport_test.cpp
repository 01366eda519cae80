#include "tunnel/socket_tunnel_transport.hpp"

#include <gtest/gtest.h>

#include <future>
#include <vector>

#include "common/started_runtime.hpp"
#include "tunnel_test_support.hpp"

namespace skiff::tunnel {
namespace {

using skiff::testing::readyInTime;
using skiff::testing::runSync;

class SocketTunnelTransportTest : public ::testing::Test {
protected:
    void SetUp() override { std::tie(transport, peer) = testing::socketPair(runtime.executor()); }
    void TearDown() override {
        runSync(runtime.executor(), transport->close());
        runtime.stop();
    }

    bool disconnectedOf(std::future<Bytes>& pending) {
        EXPECT_TRUE(readyInTime(pending));
        return testing::errorCaseOf<TunnelTransportError>([&] { pending.get(); }) ==
               TunnelTransportError::Case::disconnected;
    }

    skiff::testing::StartedRuntime runtime;
    std::shared_ptr<SocketTunnelTransport> transport;
    std::unique_ptr<testing::Peer> peer;
};

TEST_F(SocketTunnelTransportTest, ConcurrentSendsNeverInterleave) {
    constexpr int kSenders = 8;
    constexpr std::size_t kSize = 256 * 1024;
    std::vector<std::future<void>> sends;
    // Each unit is a head and a tail from separate buffers, as a frame's header and body.
    for (int i = 0; i < kSenders; ++i) {
        const auto mark = static_cast<std::uint8_t>(i);
        sends.push_back(asio::co_spawn(
            runtime.executor(),
            transport->send(Bytes(kSize / 4, mark), SharedBytes(Bytes(kSize - kSize / 4, mark))),
            asio::use_future));
    }
    std::vector<bool> seen(kSenders, false);
    for (int i = 0; i < kSenders; ++i) {
        Bytes block;
        ASSERT_TRUE(peer->read(block, kSize));
        EXPECT_EQ(Bytes(kSize, block[0]), block) << "a buffer was split by another send";
        seen.at(block[0]) = true;
    }
    for (auto& s : sends) {
        ASSERT_TRUE(readyInTime(s));
        s.get();
    }
    EXPECT_EQ(std::count(seen.begin(), seen.end(), true), kSenders);
}

TEST_F(SocketTunnelTransportTest, ReceiveReturnsExactCountsAcrossPartialWrites) {
    auto pending = asio::co_spawn(runtime.executor(), transport->receive(6), asio::use_future);
    peer->write(Bytes{1, 2});
    peer->write(Bytes{3, 4, 5, 6, 7});
    ASSERT_TRUE(readyInTime(pending));
    EXPECT_EQ(pending.get(), (Bytes{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(runSync(runtime.executor(), transport->receive(1)), Bytes{7});
    EXPECT_TRUE(runSync(runtime.executor(), transport->receive(0)).empty());
}

TEST_F(SocketTunnelTransportTest, PeerCloseOrOwnCloseFailsReceiveWithDisconnected) {
    auto pending = asio::co_spawn(runtime.executor(), transport->receive(4), asio::use_future);
    peer->write(Bytes{1});
    peer->closeNow();
    EXPECT_TRUE(disconnectedOf(pending));

    auto [other, otherPeer] = testing::socketPair(runtime.executor());
    auto waiting = asio::co_spawn(runtime.executor(), other->receive(4), asio::use_future);
    runSync(runtime.executor(), other->close());
    EXPECT_TRUE(disconnectedOf(waiting));
    EXPECT_THROW(runSync(runtime.executor(), other->send(Bytes{1}, {})), TunnelTransportError);
}

}  // namespace
}  // namespace skiff::tunnel
