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
        // Before the runtime goes, so that no loop is left holding the probe.
        EXPECT_TRUE(!probe || stopAndLetGo());
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
    // Stops the probe; true once every loop let it go, with no clock moved.
    bool stopAndLetGo() {
        std::weak_ptr<RelayProbeCoordinator> held = probe;
        probe->stop();
        probe.reset();
        return eventually([&] { return held.expired(); });
    }

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

    log::LogCapture capture;
    runtime::IoRuntime runtime;
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    std::shared_ptr<StubVolume> volume = std::make_shared<StubVolume>();
    std::shared_ptr<ScriptedLink> link = std::make_shared<ScriptedLink>();
    std::atomic<bool> usb{true};
    std::atomic<int> usbAsked{0};
    std::shared_ptr<RelayProbeCoordinator> probe;
};

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

// No clock moves here: a stop that waited for the next tick or deadline would hold the
// probe for good.
TEST_F(RelayProbeTest, StopEndsTheLoopAtOnceWhetherItSleepsOrWaitsForTheApp) {
    for (const std::int64_t answer : {kSilent, kOk}) {
        SCOPED_TRACE(answer);
        link->script({}, answer);
        makeProbe();
        probe->usbDidConnect();
        // Waiting for a silent app, or asleep after a good round.
        ASSERT_TRUE(eventually(
            [&] { return answer == kSilent ? link->sends() > 0 : clock->sleeping() > 0; }));
        EXPECT_TRUE(stopAndLetGo());
        EXPECT_EQ(link->invalidations(), 0);
    }
}

// USB events and mounts switch loops; the keepalive forces the volume off after three
// misses in a row (a miss is a round whose two attempts both failed); a volume forced off
// for a lost phone comes back once its app answers (its file system ending is only the echo of
// the forced unmount), unless someone unmounted it meanwhile.
TEST_F(RelayProbeTest, LoopsFollowUsbAndTheVolumeAndALostPhoneGetsItsVolumeBack) {
    enum Event {
        mountedByHand,
        mounted,
        usbIn,
        usbOut,
        unmounted,
        fsEnded,
        appSilent,
        appAnswers,
        busy
    };
    const std::string back = "[relay-probe] iOS relay back after a forced unmount — mount again";
    const std::string again = "[relay-probe] volume mounted again — start mounted keepalive";
    const std::string keepalive =
        "[relay-probe] USB connected while volume mounted — start mounted keepalive";
    const std::string forced = "[relay-probe] force unmount after USB disconnect";
    const std::string mountedLine = "[relay-probe] volume mounted — start mounted keepalive";
    const struct {
        const char* name;
        // Each event, and how many lines the probe has logged once it is heard.
        std::vector<std::pair<Event, std::size_t>> events;
        std::vector<std::string> lines;
        std::vector<std::string> volumeCalls;
        std::deque<std::int64_t> script = {};  // the app's first answers, then kOk
    } cases[] = {
        {"two misses, then a good check resets the count",
         {{mounted, 5}},
         {mountedLine, kMiss1, kMiss2, kRecovered, kMiss1},
         {},
         {kFailed, kFailed, kFailed, kFailed, kOk, kFailed, kFailed}},
        {"three misses and an unmount the tool refuses",
         {{appSilent, 0}, {busy, 0}, {mounted, 6}},
         {mountedLine, kMiss1, kMiss2, kMiss3, kExhausted,
          "[relay-probe] force unmount after lost relay failed: device is busy"},
         {"forced unmount"}},
        {"gone from USB, its file system ends, and back",
         {{mountedByHand, 0}, {usbIn, 1}, {usbOut, 2}, {fsEnded, 2}, {usbIn, 5}},
         {keepalive, forced, kReachable, back, again},
         {"forced unmount", "mount"}},
        {"its app silent and back",
         {{appSilent, 0}, {mounted, 6}, {appAnswers, 9}},
         {mountedLine, kMiss1, kMiss2, kMiss3, kExhausted,
          "[relay-probe] force unmount after lost relay ok", kReachable, back, again},
         {"forced unmount", "mount"}},
        {"a user's unmount before it is back",
         {{mountedByHand, 0}, {usbIn, 1}, {usbOut, 2}, {unmounted, 2}, {usbIn, 3}},
         {keepalive, forced, kReachable},
         {"forced unmount"}},
        {"never mounted",
         {{usbIn, 1}, {unmounted, 2}, {usbOut, 3}, {usbIn, 4}},
         {kReachable, "[relay-probe] volume unmounted — resume probe",
          "[relay-probe] unmount after disconnect failed: Skiff is not mounted.", kReachable},
         {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        capture.clear();
        volume = std::make_shared<StubVolume>();
        usb = true;
        link->script(c.script, kOk);
        makeProbe();
        for (const auto& [event, lines] : c.events) {
            const int asked = usbAsked, sent = link->sends();
            usb = usb ? event != usbOut : event == usbIn;
            if (event == mountedByHand || event == mounted) {
                volume->mounted = true;
            }
            if (event == appSilent || event == appAnswers) {
                link->script({}, event == appSilent ? kFailed : kOk);
            }
            if (event == busy) {
                volume->failWith(MountServiceError::commandFailed("device is busy"));
            } else if (event == mounted) {
                probe->volumeDidMount();
            } else if (event == usbIn) {
                probe->usbDidConnect();
            } else if (event == usbOut) {
                probe->usbDidDisconnect();
            } else if (event == unmounted) {
                probe->volumeDidUnmount();
            } else if (event == fsEnded) {
                probe->fileSystemDidEnd();
            }
            ASSERT_TRUE(clock->driveUntil([&] { return probeLines().size() >= lines; }));
            // A loop that was started has asked once, and whether a phone is there is known,
            // before the next event changes the answers.
            ASSERT_TRUE(eventually(
                [&] { return (event != usbIn && event != mounted) || link->sends() > sent; }));
            ASSERT_TRUE(eventually(
                [&] { return (event != unmounted && event != fsEnded) || usbAsked > asked; }));
        }
        EXPECT_EQ(probeLines(), c.lines);
        EXPECT_EQ(volume->calls(), c.volumeCalls);
        ASSERT_TRUE(stopAndLetGo());
    }
}

// The real bridge over a socket pair: the app reads requests but answers none.
TEST_F(RelayProbeTest, SilentAppFailsTheWaitingRelaysAndRelaysWorkOnceItAnswers) {
    auto engine = std::make_shared<tunnel::TunnelEngine>(runtime.executor());
    auto opener = std::make_shared<relay::testing::FakeOpener>(runtime.executor());
    auto bridge =
        std::make_shared<relay::TunnelRelayBridge>(runtime.executor(), engine, opener, nullptr);
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
