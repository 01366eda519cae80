#include "tunnel/tunnel_engine.hpp"

#include <gtest/gtest.h>

#include <future>

#include "common/byte_text.hpp"
#include "common/started_runtime.hpp"
#include "tunnel_test_support.hpp"

namespace skiff::tunnel {
namespace {

using skiff::testing::bytesOf;
using skiff::testing::readyInTime;
using skiff::testing::runSync;
using testing::errorCaseOf;
using testing::Frame;
using testing::Peer;
using Case = TunnelEngineError::Case;

class TunnelEngineTest : public ::testing::Test {
protected:
    void TearDown() override {
        if (transport) {
            runSync(runtime.executor(), transport->close());
        }
        runtime.stop();
    }

    void bind(TunnelEndpointRole role, TunnelRequestHandler requestHandler = nullptr,
              TunnelNotifyHandler notifyHandler = nullptr,
              std::shared_ptr<TunnelTransport> over = nullptr) {
        if (transport) {
            runSync(runtime.executor(), transport->close());
        }
        std::tie(transport, peer) = testing::socketPair(runtime.executor());
        TunnelBinding binding{over ? over : transport, role, "tunnel-key",
                              std::move(requestHandler), std::move(notifyHandler)};
        runSync(runtime.executor(), engine->unbind());
        runSync(runtime.executor(), engine->bind(std::move(binding)));
    }

    std::future<TunnelMessage> request(std::uint16_t code, Bytes payload) {
        return asio::co_spawn(runtime.executor(), engine->request(code, std::move(payload)),
                              asio::use_future);
    }

    std::optional<TunnelEndpointRole> role() { return runSync(runtime.executor(), engine->role()); }

    Case failureOf(std::future<TunnelMessage>& pending) {
        EXPECT_TRUE(readyInTime(pending));
        return errorCaseOf<TunnelEngineError>([&] { pending.get(); });
    }

    skiff::testing::StartedRuntime runtime;
    std::shared_ptr<TunnelEngine> engine = std::make_shared<TunnelEngine>(runtime.executor());
    std::shared_ptr<SocketTunnelTransport> transport;
    std::unique_ptr<Peer> peer;
};

TEST_F(TunnelEngineTest, RequestsNeedAClientBindingAndFailWhenItEnds) {
    auto beforeBind = request(1, {});
    EXPECT_EQ(failureOf(beforeBind), Case::notBound);
    bind(TunnelEndpointRole::server);
    auto asServer = request(1, {});
    EXPECT_EQ(failureOf(asServer), Case::notBound);

    // Unbinding resumes every waiter.
    bind(TunnelEndpointRole::client);
    EXPECT_EQ(runSync(runtime.executor(), engine->tunnelKey()), "tunnel-key");
    auto a = request(1, {});
    auto b = request(2, {});
    peer->readFrame();
    peer->readFrame();
    runSync(runtime.executor(), engine->unbind());
    EXPECT_EQ(failureOf(a), Case::disconnected);
    EXPECT_EQ(failureOf(b), Case::disconnected);
    EXPECT_EQ(runSync(runtime.executor(), engine->tunnelKey()), std::nullopt);
    auto afterUnbind = request(1, {});
    EXPECT_EQ(failureOf(afterUnbind), Case::notBound);

    // So does the peer's close.
    bind(TunnelEndpointRole::client);
    auto c = request(3, {});
    peer->readFrame();
    peer->closeNow();
    EXPECT_EQ(failureOf(c), Case::disconnected);
}

TEST_F(TunnelEngineTest, ResponsesAreMatchedByFlowNotByOrder) {
    bind(TunnelEndpointRole::client);
    auto first = request(10, bytesOf("first"));
    Frame firstFrame = peer->readFrame();
    auto second = request(11, bytesOf("second"));
    Frame secondFrame = peer->readFrame();
    EXPECT_EQ(firstFrame.header.kind, FrameKind::request);
    EXPECT_EQ(firstFrame.header.code, 10);
    EXPECT_EQ(firstFrame.payload, bytesOf("first"));
    EXPECT_NE(firstFrame.header.flow, secondFrame.header.flow);

    peer->writeFrame(FrameKind::response, 211, secondFrame.header.flow, bytesOf("to second"));
    ASSERT_TRUE(readyInTime(second));
    EXPECT_EQ(first.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    peer->writeFrame(FrameKind::response, 210, firstFrame.header.flow, bytesOf("to first"));
    ASSERT_TRUE(readyInTime(first));

    TunnelMessage a = first.get();
    TunnelMessage b = second.get();
    EXPECT_EQ(a.code, 210);
    EXPECT_EQ(a.payload, bytesOf("to first"));
    EXPECT_EQ(b.code, 211);
    EXPECT_EQ(b.payload, bytesOf("to second"));
}

TEST_F(TunnelEngineTest, ClientEndsTheTunnelOnUnknownFlowsRequestsAndReservedKinds) {
    for (FrameKind kind :
         {FrameKind::response, FrameKind::request, FrameKind::reserved4, FrameKind::reserved5}) {
        SCOPED_TRACE(static_cast<int>(kind));
        bind(TunnelEndpointRole::client);
        auto waiting = request(1, {});
        Frame sent = peer->readFrame();
        peer->writeFrame(kind, 0, sent.header.flow + 100);
        EXPECT_EQ(failureOf(waiting), Case::disconnected);
        EXPECT_EQ(role(), std::nullopt);
        auto later = request(1, {});
        EXPECT_EQ(failureOf(later), Case::notBound);
    }
}

TEST_F(TunnelEngineTest, PushesReachTheHandlerOrAreDroppedWithoutHarm) {
    bind(TunnelEndpointRole::client);
    peer->writeFrame(FrameKind::push, 3, 1, bytesOf("nobody listens"));
    auto after = request(5, {});
    Frame sent = peer->readFrame();
    peer->writeFrame(FrameKind::response, 0, sent.header.flow);
    ASSERT_TRUE(readyInTime(after));
    EXPECT_NO_THROW(after.get());

    runtime::OnceReply<TunnelMessage> delivered;
    bind(TunnelEndpointRole::client, nullptr, [delivered](std::uint16_t code, Bytes payload) {
        delivered.resume(TunnelMessage{code, std::move(payload)});
    });
    peer->writeFrame(FrameKind::push, 4, 9, bytesOf("item"));
    TunnelMessage push = runSync(runtime.executor(), std::move(delivered).wait());
    EXPECT_EQ(push.code, 4);
    EXPECT_EQ(push.payload, bytesOf("item"));
}

TEST_F(TunnelEngineTest, FailedWriteReachesOnlyItsCallerAndTheTunnelStays) {
    std::tie(transport, peer) = testing::socketPair(runtime.executor());
    auto failing = std::make_shared<testing::FailingSendTransport>(transport);
    TunnelBinding binding{failing, TunnelEndpointRole::client, std::nullopt, nullptr, nullptr};
    runSync(runtime.executor(), engine->bind(std::move(binding)));

    failing->failSends = true;
    auto refused = request(1, {});
    ASSERT_TRUE(readyInTime(refused));
    EXPECT_EQ(errorCaseOf<TunnelTransportError>([&] { refused.get(); }),
              TunnelTransportError::Case::ioFailed);
    EXPECT_EQ(role(), TunnelEndpointRole::client);

    failing->failSends = false;
    auto accepted = request(2, {});
    Frame sent = peer->readFrame();
    peer->writeFrame(FrameKind::response, 7, sent.header.flow);
    ASSERT_TRUE(readyInTime(accepted));
    EXPECT_EQ(accepted.get().code, 7);
}

TEST_F(TunnelEngineTest, RequestPayloadLimitIsFiveMebibytes) {
    bind(TunnelEndpointRole::client);
    auto tooLarge = request(1, Bytes(maxFramePayload + 1));
    EXPECT_EQ(failureOf(tooLarge), Case::payloadTooLarge);
    EXPECT_EQ(role(), TunnelEndpointRole::client);

    auto largest = request(1, Bytes(maxFramePayload, 0x11));
    Frame sent = peer->readFrame();
    EXPECT_EQ(sent.payload.size(), maxFramePayload);
    peer->writeFrame(FrameKind::response, 0, sent.header.flow, Bytes(maxFramePayload, 0x22));
    ASSERT_TRUE(readyInTime(largest));
    EXPECT_EQ(largest.get().payload, Bytes(maxFramePayload, 0x22));
}

}  // namespace
}  // namespace skiff::tunnel
