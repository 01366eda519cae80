// The relay probe with scripted answers and time moved by hand: what it logs, when it
// retries on a fresh tunnel, when it forces the volume off; and against the real relay
// bridge, that a silent app no longer holds the relays waiting behind it.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <string>
#include <vector>

#include "common/io_runtime.hpp"
#include "common/log.hpp"
#include "common/run_sync.hpp"
#include "mount/probe_fakes.hpp"
#include "mount/relay_probe_coordinator.hpp"
#include "mount/stub_volume.hpp"
#include "relay/relay_fakes.hpp"

namespace skiff::mount {
namespace {

using skiff::testing::eventually;
using skiff::testing::readyInTime;
using testing::ManualClock;
using testing::ScriptedLink;
using testing::StubVolume;

constexpr std::int64_t kOk = 0, kNotConnected = 1, kFailed = 3, kTimedOut = 4, kDevice = 9;
constexpr auto kSilent = ScriptedLink::kSilent;

const std::string kMiss1 = "[relay-probe] mounted keepalive miss 1/3";
const std::string kMiss2 = "[relay-probe] mounted keepalive miss 2/3";
const std::string kMiss3 = "[relay-probe] mounted keepalive miss 3/3";
const std::string kRecovered = "[relay-probe] mounted keepalive recovered";
const std::string kExhausted = "[relay-probe] mounted keepalive exhausted — force unmount";
const std::string kReachable = "[relay-probe] iOS relay reachable";
const std::string kUnreachable = "[relay-probe] iOS relay unreachable";

class RelayProbeTest : public ::testing::Test {
protected:
    void SetUp() override { runtime.start(); }
    void TearDown() override {
        if (probe) {
            probe->stop();
        }
        runtime.stop();
        // What still waits holds the probe; let it go with the runtime.
        clock->release();
        link->release();
    }

    void makeProbe(std::shared_ptr<ProbeLink> withLink) {
        ProbeCollaborators c;
        c.executor = runtime.executor();
        c.volume = volume;
        c.usbConnected = [this] {
            ++usbAsked;
            return usb.load();
        };
        c.link = std::move(withLink);
        c.clock = clock;
        probe = std::make_shared<RelayProbeCoordinator>(std::move(c));
    }
    void makeProbe() { makeProbe(link); }

    std::vector<std::string> probeLines() const {
        std::vector<std::string> lines;
        for (auto& m : capture.messages()) {
            if (m.starts_with("[relay-probe]")) {
                lines.push_back(m);
            }
        }
        return lines;
    }
    bool logged(const std::string& line) const {
        auto lines = probeLines();
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    }
    bool driveUntilLogged(const std::string& line) {
        return clock->driveUntil([&] { return logged(line); });
    }

    log::LogCapture capture;
    runtime::IoRuntime runtime;
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    std::shared_ptr<StubVolume> volume = std::make_shared<StubVolume>();
    std::shared_ptr<ScriptedLink> link = std::make_shared<ScriptedLink>();
    std::atomic<bool> usb{true};
    std::atomic<int> usbAsked{0};
    std::shared_ptr<RelayProbeCoordinator> probe;
};

// A miss is a round whose two attempts both failed, so each scripted miss takes two
// statuses.
struct KeepaliveCase {
    const char* name;
    std::deque<std::int64_t> script;
    std::int64_t fallback;
    bool unmountRefused;
    std::vector<std::string> lines;
    std::size_t unmounts;
};

TEST_F(RelayProbeTest, KeepaliveCountsConsecutiveMissesAndForcesTheVolumeOffAfterTheThird) {
    const std::vector<KeepaliveCase> cases = {
        {"two misses, then a good check resets the count",
         {kFailed, kFailed, kFailed, kFailed, kOk, kFailed, kFailed},
         kOk,
         false,
         {kMiss1, kMiss2, kRecovered, kMiss1},
         0},
        {"three misses",
         {},
         kFailed,
         false,
         {kMiss1, kMiss2, kMiss3, kExhausted, "[relay-probe] force unmount after lost relay ok"},
         1},
        {"three misses and an unmount the tool refuses",
         {},
         kFailed,
         true,
         {kMiss1, kMiss2, kMiss3, kExhausted,
          "[relay-probe] force unmount after lost relay failed: device is busy"},
         1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        capture.clear();
        volume = std::make_shared<StubVolume>();
        link->script(c.script, c.fallback);
        if (c.unmountRefused) {
            volume->failWith(MountServiceError::commandFailed("device is busy"));
        }
        volume->mounted = true;
        makeProbe();
        probe->volumeDidMount();

        ASSERT_TRUE(clock->driveUntil([&] { return probeLines().size() > c.lines.size(); }));
        auto expected = c.lines;
        expected.insert(expected.begin(), "[relay-probe] volume mounted — start mounted keepalive");
        EXPECT_EQ(probeLines(), expected);
        EXPECT_EQ(volume->unmounts(), std::vector<bool>(c.unmounts, true));
        probe->stop();
    }
}

TEST_F(RelayProbeTest, ProbeLogsOnlyChangesAndRetriesOnceOnAFreshTunnel) {
    link->script({kOk,                     // reachable
                  kOk,                     // no change
                  kFailed, kFailed,        // retried, still failing: unreachable
                  kNotConnected, kFailed,  // retried, no change
                  kFailed, kDevice,        // the retry is answered, if with a refusal: reachable
                  kTimedOut},              // not a tunnel fault, no retry: unreachable
                 kTimedOut);
    makeProbe();
    probe->usbDidConnect();

    ASSERT_TRUE(clock->driveUntil([&] { return probeLines().size() >= 4; }));
    EXPECT_EQ(probeLines(),
              (std::vector<std::string>{kReachable, kUnreachable, kReachable, kUnreachable}));
    EXPECT_EQ(link->sends(), 9);
    EXPECT_EQ(link->invalidations(), 3);
}

class UsbConnectTest : public RelayProbeTest, public ::testing::WithParamInterface<bool> {};

TEST_P(UsbConnectTest, StartsTheLoopThatSuitsTheVolume) {
    const bool mounted = GetParam();
    volume->mounted = mounted;
    // The probe logs only a change, so it starts from a good round.
    link->script({kOk}, kFailed);
    makeProbe();
    probe->usbDidConnect();

    ASSERT_TRUE(driveUntilLogged(mounted ? kMiss1 : kUnreachable));
    EXPECT_FALSE(logged(mounted ? kUnreachable : kMiss1));
    EXPECT_EQ(logged("[relay-probe] USB connected while volume mounted — start mounted keepalive"),
              mounted);
}

INSTANTIATE_TEST_SUITE_P(MountedOrNot, UsbConnectTest, ::testing::Bool());

TEST_F(RelayProbeTest, RecentAppTrafficStandsInForTheKeepalive) {
    link->script({}, kOk);
    volume->mounted = true;
    link->setContact(clock->now());
    makeProbe();
    probe->volumeDidMount();

    // The app speaks a second into every wait, so no wait ends a full period after it.
    for (int i = 0; i < 5; ++i) {
        link->setContact(clock->now() + std::chrono::seconds(1));
        ASSERT_TRUE(clock->wakeSleeper());
    }
    EXPECT_EQ(link->sends(), 0);

    // Once it falls quiet the keepalive asks on its own.
    ASSERT_TRUE(clock->driveUntil([&] { return link->sends() > 0; }));
}

TEST_F(RelayProbeTest, UsbDisconnectEndsTheLoopAndForcesAMountedVolumeOff) {
    struct Case {
        bool mounted;
        std::string line;
        std::vector<bool> unmounts;
    };
    const std::vector<Case> cases = {
        {true, "[relay-probe] force unmount after USB disconnect", {true}},
        {false, "[relay-probe] unmount after disconnect failed: Skiff is not mounted.", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        capture.clear();
        volume = std::make_shared<StubVolume>();
        volume->mounted = c.mounted;
        usb = true;
        link->script({}, kOk);
        makeProbe();
        probe->usbDidConnect();
        ASSERT_TRUE(clock->driveUntil([&] { return link->sends() > 0; }));
        ASSERT_TRUE(eventually([&] { return clock->sleeping() > 0; }));

        usb = false;
        probe->usbDidDisconnect();
        ASSERT_TRUE(eventually([&] { return logged(c.line); }));
        EXPECT_EQ(volume->unmounts(), c.unmounts);

        // The loop that slept wakes to find itself replaced and sends nothing more.
        const int sends = link->sends();
        clock->wakeSleeper();
        ASSERT_TRUE(eventually([&] { return clock->sleeping() == 0; }));
        EXPECT_EQ(link->sends(), sends);
    }
}

TEST_F(RelayProbeTest, VolumeUnmountResumesTheProbeOnlyWhileAPhoneIsThere) {
    makeProbe();
    usb = false;
    probe->volumeDidUnmount();
    ASSERT_TRUE(eventually([&] { return usbAsked > 0; }));
    usb = true;
    probe->volumeDidUnmount();
    ASSERT_TRUE(driveUntilLogged(kReachable));
    EXPECT_EQ(probeLines(), (std::vector<std::string>{
                                "[relay-probe] volume unmounted — resume probe", kReachable}));
}

// The real bridge over a socket pair: the app reads requests but answers none.
TEST_F(RelayProbeTest, SilentAppFailsTheWaitingRelaysAndRelaysWorkOnceItAnswers) {
    auto engine = std::make_shared<tunnel::TunnelEngine>(runtime.executor());
    auto opener = std::make_shared<relay::testing::FakeOpener>(runtime.executor());
    auto bridge = std::make_shared<relay::TunnelRelayBridge>(runtime.executor(), engine, opener);
    makeProbe(std::make_shared<BridgeProbeLink>(bridge));
    auto clientRelay = [&] {
        return asio::co_spawn(runtime.executor(), bridge->relayForClient(2, {'x'}),
                              asio::use_future);
    };

    probe->usbDidConnect();
    opener->answer(0, 0, {});
    ASSERT_TRUE(eventually([&] { return logged(kReachable); }));
    EXPECT_TRUE(bridge->lastIOSContact().has_value());

    // Next round the app falls silent, with a client's relay waiting behind the probe.
    ASSERT_TRUE(clock->wakeSleeper());
    opener->peer(0).readFrame();
    auto waiting = clientRelay();
    opener->peer(0).readFrame();
    const auto silentSince = clock->now();
    clock->advance(RelayProbeCoordinator::kPeriod);
    ASSERT_TRUE(readyInTime(waiting));
    EXPECT_EQ(waiting.get().status, 3);
    EXPECT_LE(clock->now() - silentSince, 2 * RelayProbeCoordinator::kPeriod);
    ASSERT_TRUE(eventually([&] { return logged(kUnreachable); }));
    EXPECT_EQ(opener->events().back(), "invalidate 33325");

    // The app answers again: the next round connects anew, and so do the clients.
    ASSERT_TRUE(clock->wakeSleeper());
    opener->answer(1, 0, {});
    ASSERT_TRUE(eventually([&] { return probeLines().back() == kReachable; }));
    auto again = clientRelay();
    opener->answer(1, 0, {'o', 'k'});
    ASSERT_TRUE(readyInTime(again));
    EXPECT_EQ(again.get().status, 0);
}

}  // namespace
}  // namespace skiff::mount
