// The relay bridge against a socket-pair tunnel: binding on demand and its reuse, status
// mapping, dropping a failed tunnel, exclusive use and push dispatch; each with the bridge
// and the engine on strands of their own and on the one strand skiffd gives them.
#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "common/byte_text.hpp"
#include "common/run_sync.hpp"
#include "common/started_runtime.hpp"
#include "relay/relay_fakes.hpp"
#include "relay/tunnel_relay_bridge.hpp"

namespace skiff::relay {
namespace {

using skiff::testing::bytesOf;
using skiff::testing::eventually;
using skiff::testing::readyInTime;
using skiff::testing::runSync;
using testing::FakeOpener;
using tunnel::FrameKind;

struct Pushed {
    std::string target;
    std::int64_t code;
    std::string body;
};

class TunnelRelayBridgeTest : public ::testing::TestWithParam<bool> {
protected:
    // Records every push the bridge hands on, by where it went.
    struct RecordingSink final : PushSink {
        explicit RecordingSink(TunnelRelayBridgeTest& test) : test(test) {}
        void forwardToExtension(std::int64_t code, Bytes body) override {
            test.record("extension", code, body);
        }
        void mountControl(Bytes body) override { test.record("mount", 3, body); }
        void itemMutation(Bytes body) override { test.record("item", 4, body); }
        TunnelRelayBridgeTest& test;
    };

    void SetUp() override {
        const asio::any_io_executor core =
            GetParam() ? asio::make_strand(runtime.executor()) : runtime.executor();
        engine = std::make_shared<tunnel::TunnelEngine>(core);
        opener = std::make_shared<FakeOpener>(runtime.executor());
        sink = std::make_shared<RecordingSink>(*this);
        bridge = std::make_shared<TunnelRelayBridge>(core, engine, opener, sink);
    }
    void TearDown() override { runtime.stop(); }

    std::future<RelayReply> relayAsync(std::uint16_t code, Bytes payload) {
        return asio::co_spawn(runtime.executor(), bridge->relayForClient(code, std::move(payload)),
                              asio::use_future);
    }

    RelayReply relayAnswered(std::size_t tunnel, std::uint16_t answerCode,
                             std::string_view answer) {
        auto reply = relayAsync(2, bytesOf("request"));
        EXPECT_EQ(opener->answer(tunnel, answerCode, bytesOf(answer)), bytesOf("request"));
        EXPECT_TRUE(readyInTime(reply));
        return reply.get();
    }

    void record(std::string target, std::int64_t code, const Bytes& body) {
        std::lock_guard guard(mutex);
        pushed.push_back({std::move(target), code, std::string(body.begin(), body.end())});
    }
    std::vector<Pushed> pushedSoFar() {
        std::lock_guard guard(mutex);
        return pushed;
    }

    skiff::testing::StartedRuntime runtime;
    std::shared_ptr<tunnel::TunnelEngine> engine;
    std::shared_ptr<FakeOpener> opener;
    std::shared_ptr<TunnelRelayBridge> bridge;
    std::shared_ptr<RecordingSink> sink;
    std::mutex mutex;
    std::vector<Pushed> pushed;
};

TEST_P(TunnelRelayBridgeTest, BindsOnceAndMapsTheAppsAnswerCodes) {
    EXPECT_EQ(bridge->lastIOSContact(), std::nullopt);
    auto ok = relayAnswered(0, 0, "summary");
    EXPECT_EQ(ok.data, bytesOf("summary"));
    EXPECT_EQ(ok.status, 0);
    EXPECT_EQ(ok.detail, 0);
    EXPECT_NE(bridge->lastIOSContact(), std::nullopt);

    auto notFound = relayAnswered(0, 1, "why");
    EXPECT_EQ(notFound.data, bytesOf("why"));
    EXPECT_EQ(notFound.status, 9);
    EXPECT_EQ(notFound.detail, 1);

    auto unknown = relayAnswered(0, 12, "");
    EXPECT_EQ(unknown.status, 9);
    EXPECT_EQ(unknown.detail, 5);

    // One tunnel served all three.
    EXPECT_EQ(opener->events(), std::vector<std::string>{"open 33325"});
    EXPECT_EQ(runSync(runtime.executor(), engine->tunnelKey()), "relay:33325");
}

TEST_P(TunnelRelayBridgeTest, FailedTunnelIsClosedAndTheNextRequestReconnects) {
    relayAnswered(0, 0, "");
    auto reply = relayAsync(2, bytesOf("lost"));
    opener->peer(0).readFrame();
    opener->peer(0).closeNow();
    ASSERT_TRUE(readyInTime(reply));
    auto failed = reply.get();
    EXPECT_EQ(failed.status, 3);
    EXPECT_TRUE(failed.data.empty());
    EXPECT_EQ(runSync(runtime.executor(), engine->tunnelKey()), std::nullopt);

    EXPECT_EQ(relayAnswered(1, 0, "again").data, bytesOf("again"));
    EXPECT_EQ(opener->events(), (std::vector<std::string>{"open 33325", "open 33325"}));
}

TEST_P(TunnelRelayBridgeTest, AppNotReachableGivesStatusOneAndOversizeSevenWithoutTunnel) {
    auto tooLarge = runSync(runtime.executor(),
                            bridge->relayForClient(2, Bytes(tunnel::maxFramePayload + 1, 0)));
    EXPECT_EQ(tooLarge.status, 7);
    EXPECT_TRUE(opener->events().empty());

    opener->failOpen = true;
    auto refused = runSync(runtime.executor(), bridge->relayForClient(2, {}));
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.detail, 0);
}

TEST_P(TunnelRelayBridgeTest, RelaysWaitWhileTheTunnelIsHeldExclusively) {
    relayAnswered(0, 0, "");
    runSync(runtime.executor(), bridge->beginExclusiveUse(service::kCompanionAppPort));
    Bytes rest;
    EXPECT_FALSE(opener->peer(0).read(rest, 1));

    auto waiting = relayAsync(2, bytesOf("held"));
    EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
    runSync(runtime.executor(), bridge->endExclusiveUse(service::kCompanionAppPort));

    EXPECT_EQ(opener->answer(1, 0, bytesOf("fresh")), bytesOf("held"));
    ASSERT_TRUE(readyInTime(waiting));
    EXPECT_EQ(waiting.get().data, bytesOf("fresh"));
    EXPECT_EQ(opener->events(), (std::vector<std::string>{"open 33325", "invalidate 33325",
                                                          "invalidate 33325", "open 33325"}));
}

TEST_P(TunnelRelayBridgeTest, RemovalOrInvalidationFailsWaitersAndClosesTheTunnel) {
    const std::function<asio::awaitable<void>()> drops[] = {
        [&] { return bridge->dropBinding(); },
        [&] { return bridge->invalidateTunnel(service::kCompanionAppPort); },
    };
    for (std::size_t tunnel = 0; tunnel < 2; ++tunnel) {
        SCOPED_TRACE(tunnel);
        relayAnswered(tunnel, 0, "");
        auto waiting = relayAsync(2, bytesOf("unanswered"));
        opener->peer(tunnel).readFrame();
        runSync(runtime.executor(), drops[tunnel]());
        ASSERT_TRUE(readyInTime(waiting));
        EXPECT_EQ(waiting.get().status, 3);
        // Closed now, not left for a later close to hit a new one.
        Bytes rest;
        EXPECT_FALSE(opener->peer(tunnel).read(rest, 1));
    }
    EXPECT_EQ(opener->events().back(), "invalidate 33325");

    // An exclusive user's tunnel is spared.
    runSync(runtime.executor(), bridge->beginExclusiveUse(service::kCompanionAppPort));
    const auto held = opener->events().size();
    runSync(runtime.executor(), bridge->invalidateTunnel(service::kCompanionAppPort));
    EXPECT_EQ(opener->events().size(), held);
    runSync(runtime.executor(), bridge->endExclusiveUse(service::kCompanionAppPort));
}

TEST_P(TunnelRelayBridgeTest, PushesAreDispatchedByMessage) {
    relayAnswered(0, 0, "");
    auto& phone = opener->peer(0);
    for (std::uint16_t code : {0, 1, 2, 3, 4, 5}) {
        phone.writeFrame(FrameKind::push, code, code + 1, bytesOf("body" + std::to_string(code)));
    }
    ASSERT_TRUE(eventually([&] { return pushedSoFar().size() == 5; }));
    auto got = pushedSoFar();
    auto has = [&](const std::string& target, std::int64_t code) {
        for (const auto& p : got) {
            if (p.target == target && p.code == code && p.body == "body" + std::to_string(code)) {
                return true;
            }
        }
        return false;
    };
    EXPECT_TRUE(has("extension", 0));
    EXPECT_TRUE(has("extension", 2));
    EXPECT_TRUE(has("extension", 3));
    EXPECT_TRUE(has("mount", 3));
    EXPECT_TRUE(has("item", 4));
}

INSTANTIATE_TEST_SUITE_P(OwnOrSharedStrand, TunnelRelayBridgeTest, ::testing::Bool());

}  // namespace
}  // namespace skiff::relay
