// The host object's operations: caller checks and their order, measurements between
// clients, the speed-test report and its hold on the relay's tunnel.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "common/log.hpp"
#include "common/once_reply.hpp"
#include "common/run_sync.hpp"
#include "common/version.hpp"
#include "mount/stub_volume.hpp"
#include "relay/relay_fakes.hpp"
#include "service/harbor_xpc.hpp"
#include "service/relay_transfer_sender.hpp"
#include "service/service_fakes.hpp"
#include "service/service_status.hpp"

namespace skiff::service {
namespace {

using testing::FakeConnection;

constexpr std::size_t kLimit = 5'242'880;

class HarborXpcTest : public testing::CoreTest {
protected:
    void complete(BridgeCollaborators& collaborators) override {
        opener = std::make_shared<relay::testing::FakeOpener>(runtime.executor());
        collaborators.relayBridge = std::make_shared<relay::TunnelRelayBridge>(
            runtime.executor(), std::make_shared<tunnel::TunnelEngine>(runtime.executor()), opener,
            hub);
        // No test here gets as far as a container file, so the container is never made.
        collaborators.transfers = std::make_shared<transfer::TransferCoordinator>(
            runtime.executor(), std::make_shared<RelayTransferSender>(collaborators.relayBridge),
            std::make_shared<transfer::SharedFileStorage>("/nonexistent/skiff-container"), hub);
        collaborators.volume = volume;
        collaborators.volumeListener = listener;
    }

    using FileIOAnswer = testing::Answer<Bytes, std::int64_t>;
    using RelayAnswer = testing::Answer<Bytes, std::int64_t, std::int64_t>;
    using SpeedAnswer = testing::Answer<bool, std::string>;

    // The status of a failed file operation, which answers no data.
    static std::int64_t fileIOStatus(FakeConnection& from, std::int64_t op, std::string_view json) {
        FileIOAnswer answer;
        from.host().requestFileIO(op, Bytes(json.begin(), json.end()), answer.reply());
        auto [data, status] = answer.get();
        EXPECT_TRUE(data.empty());
        return status;
    }

    std::shared_ptr<FakeConnection> client(std::optional<HarborBridgeClientRole> role) {
        auto connection = connect();
        if (role) {
            connection->host().registerClient(static_cast<std::int64_t>(*role),
                                              [](bool ok) { EXPECT_TRUE(ok); });
        }
        return connection;
    }

    static RelayAnswer relay(FakeConnection& from, std::size_t size) {
        RelayAnswer answer;
        from.host().relayToUsbMux(2, Bytes(size, 0x5A), answer.reply());
        return answer;
    }
    // The status of a relay answered with nothing.
    static std::int64_t statusOf(RelayAnswer answer) {
        auto [data, status, code] = answer.get();
        EXPECT_TRUE(data.empty());
        EXPECT_EQ(code, 0);
        return status;
    }

    static SpeedAnswer speedTest(FakeConnection& from) {
        SpeedAnswer answer;
        from.host().runUsbMuxSpeedTest(answer.reply());
        return answer;
    }

    std::shared_ptr<relay::testing::FakeOpener> opener;
    std::shared_ptr<mount::testing::StubVolume> volume =
        std::make_shared<mount::testing::StubVolume>();
    struct CountingListener final : mount::VolumeListener {
        void volumeDidMount() override { ++mounts; }
        void volumeDidUnmount() override { ++unmounts; }
        std::atomic<int> mounts{0}, unmounts{0};
    };
    std::shared_ptr<CountingListener> listener = std::make_shared<CountingListener>();
};

TEST_F(HarborXpcTest, RelayChecksCallerThenSizeThenPhone) {
    auto stranger = client(std::nullopt);
    auto link = client(HarborBridgeClientRole::usbMux);
    auto extension = client(HarborBridgeClientRole::fileProvider);

    EXPECT_EQ(statusOf(relay(*stranger, kLimit + 1)), 1);
    EXPECT_EQ(statusOf(relay(*link, kLimit + 1)), 1);
    EXPECT_EQ(statusOf(relay(*extension, kLimit + 1)), 7);
    EXPECT_EQ(statusOf(relay(*extension, kLimit)), 3);  // within the limit; no phone yet

    core->handleUsbDeviceEvent(1, "PHONE");
    auto reply = relay(*extension, kLimit);
    EXPECT_EQ(opener->answer(0, 0, {1, 2, 3}).size(), kLimit);
    EXPECT_EQ(reply.first(), (Bytes{1, 2, 3}));
}

TEST_F(HarborXpcTest, StatusFollowsPhonesInArrivalOrderAndTheFileProvider) {
    auto stranger = client(std::nullopt);
    auto statusNow = [&] {
        testing::Answer<Bytes> answer;
        stranger->host().getStatus(answer.reply());
        return json::decode<ServiceStatus>(answer.first())
            .value_or(ServiceStatus{-1, {}, false, {}});
    };
    EXPECT_EQ(statusNow(), (ServiceStatus{kBuildNumber, {}, false, false}));

    auto extension = client(HarborBridgeClientRole::fileProvider);
    for (const auto* udid : {"B", "A", "B"}) {  // a repeated arrival keeps its place
        core->handleUsbDeviceEvent(1, udid);
    }
    EXPECT_EQ(statusNow(), (ServiceStatus{kBuildNumber, {"B", "A"}, true, false}));
    core->handleUsbDeviceEvent(2, "B");  // removed
    EXPECT_EQ(statusNow().attachedDevices, std::vector<std::string>{"A"});

    // A later file provider cuts the first off until the first registers again.
    auto tool = client(HarborBridgeClientRole::fileProvider);
    EXPECT_TRUE(statusNow().fileProviderReplaced.value_or(false));
    tool->invalidate();
    EXPECT_EQ(statusNow(), (ServiceStatus{kBuildNumber, {"A"}, false, true}));
    extension->host().registerClient(0, [](bool ok) { EXPECT_TRUE(ok); });
    EXPECT_EQ(statusNow(), (ServiceStatus{kBuildNumber, {"A"}, true, false}));
}

TEST_F(HarborXpcTest, PingsAndMeasurementsReachOnlyARegisteredOtherRole) {
    auto stranger = client(std::nullopt);
    auto app = client(HarborBridgeClientRole::desktopApp);
    std::vector<double> results;
    auto keep = [&](auto value) { results.push_back(static_cast<double>(value)); };
    auto ping = [&](FakeConnection& from, HarborBridgeClientRole target) {
        from.host().ping(static_cast<std::int64_t>(target), keep);
    };
    ping(*stranger, HarborBridgeClientRole::desktopApp);
    ping(*app, HarborBridgeClientRole::desktopApp);
    ping(*app, HarborBridgeClientRole::fileProvider);
    app->host().requestHostToExtThroughput(8, 2, keep);
    app->host().requestExtToHostPing(4, keep);
    app->host().requestExtToHostThroughput(8, 2, keep);
    EXPECT_EQ(results, (std::vector<double>{0, 1, 0, -1.0, -1.0, -1.0}));

    auto extension = client(HarborBridgeClientRole::fileProvider);
    results.clear();
    ping(*app, HarborBridgeClientRole::fileProvider);
    app->host().requestExtToHostPing(4, keep);
    app->host().requestExtToHostThroughput(8, 2, keep);
    EXPECT_EQ(results, (std::vector<double>{1, 2.0, 16.0}));  // the extension's own answers
    EXPECT_EQ(extension->client->echoes, 1);                  // the ping's
    EXPECT_EQ(app->client->echoes, 0);
}

TEST_F(HarborXpcTest, HostToExtensionChunksGoOneAtATime) {
    auto app = client(HarborBridgeClientRole::desktopApp);
    auto extension = client(HarborBridgeClientRole::fileProvider);
    auto& fake = *extension->client;
    std::optional<double> elapsed;

    app->host().requestHostToExtThroughput(16, 0, [&](double s) { elapsed = s; });
    ASSERT_TRUE(elapsed);
    EXPECT_GE(*elapsed, 0.0);
    EXPECT_TRUE(fake.ingested.empty());

    fake.holdIngest = true;
    elapsed.reset();
    app->host().requestHostToExtThroughput(16, 3, [&](double s) { elapsed = s; });
    for (std::size_t sent = 1; sent <= 3; ++sent) {
        ASSERT_EQ(fake.ingested.size(), sent);  // the next chunk waits for this reply
        EXPECT_FALSE(elapsed);
        auto release = std::exchange(fake.heldIngest, nullptr);
        release();
    }
    EXPECT_TRUE(elapsed);
    EXPECT_EQ(fake.ingested, (std::vector<std::size_t>{16, 16, 16}));
}

TEST_F(HarborXpcTest, FileIOAnswersItsGuardsFirstAndEveryFailureWithEmptyData) {
    const std::string beginRead =
        R"({"identifier":"x","sessionID":"00000000-0000-0000-0000-000000000001"})";
    auto stranger = client(std::nullopt);
    EXPECT_EQ(fileIOStatus(*stranger, 0, beginRead), 1);
    auto usbMuxClient = client(HarborBridgeClientRole::usbMux);
    EXPECT_EQ(fileIOStatus(*usbMuxClient, 1, R"({"token":"t"})"), 1);

    auto app = client(HarborBridgeClientRole::desktopApp);
    EXPECT_EQ(fileIOStatus(*app, 0, R"({"identifier":"x"})"), 3);
    EXPECT_EQ(fileIOStatus(*app, 3, "not json"), 3);
    EXPECT_EQ(fileIOStatus(*app, 0, beginRead), 4);  // no phone attached
    // A release needs no phone, and an unknown token is fine.
    EXPECT_EQ(fileIOStatus(*app, 1, R"({"token":"never"})"), 0);
    EXPECT_THROW(app->host().requestFileIO(4, {}, [](Bytes, std::int64_t) {}), InvalidArgs);

    core->handleUsbDeviceEvent(1, "PHONE");
    FileIOAnswer refused;
    app->host().requestFileIO(0, Bytes(beginRead.begin(), beginRead.end()), refused.reply());
    const auto rejection = json::encode(transfer::FileIODeviceRejection{6}).value();
    opener->answer(0, 6, rejection);
    EXPECT_EQ(refused.get(),
              std::make_tuple(
                  Bytes{}, static_cast<std::int64_t>(transfer::FileIOBridgeError::deviceRejected)));
}

TEST_F(HarborXpcTest, ShutdownRepliesWhetherTheVolumeIsOffAndAlwaysSendsTheUnmountNotice) {
    struct Case {
        bool phone;
        bool mounted;
        std::optional<mount::MountServiceError> unmountFailure;
        bool reply;
        std::string line;
    };
    const std::vector<Case> cases = {
        {false, false, std::nullopt, true, "shutdown — already unmounted"},
        {true, false, std::nullopt, true, "shutdown — already unmounted"},
        {true, true, std::nullopt, true, "shutdown — force unmount ok"},
        {true, true, mount::MountServiceError::commandFailed("device is busy"), false,
         "shutdown — unmount failed: device is busy"},
    };
    auto app = client(HarborBridgeClientRole::desktopApp);
    int notices = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line + (c.phone ? " with a phone" : " without a phone"));
        log::LogCapture capture;
        if (c.phone) {
            core->handleUsbDeviceEvent(1, "PHONE-1");
        }
        volume->mounted = c.mounted;
        if (c.unmountFailure) {
            volume->failWith(*c.unmountFailure);
        }
        const int unmountsBefore = listener->unmounts;
        testing::Answer<bool> replied;
        app->host().shutdown(replied.reply());
        if (c.phone) {
            auto& app = opener->peer(0);
            auto notice = app.readFrame();
            EXPECT_EQ(notice.header.code, 20);
            EXPECT_TRUE(notice.payload.empty());
            app.writeFrame(tunnel::FrameKind::response, 0, notice.header.flow);
            ++notices;
        }
        EXPECT_EQ(replied.first(), c.reply);
        EXPECT_TRUE(capture.contains(c.line));
        EXPECT_EQ(capture.contains("filesystemUnmounted — iOS notified"), c.phone);
        EXPECT_EQ(listener->unmounts, unmountsBefore + 1);
        if (c.mounted) {
            EXPECT_EQ(volume->calls().back(), "forced unmount");
        }
    }
    EXPECT_EQ(opener->events().size(), 1u) << "one tunnel carried every notice";
}

TEST_F(HarborXpcTest, SpeedTestReportsAndNamesItsFailures) {
    auto app = client(HarborBridgeClientRole::desktopApp);
    usbMux->measurement = {"", 1.234, 100.0, 838.8608, 50.5, 423.6};
    EXPECT_EQ(speedTest(*app).get(),
              std::make_tuple(true, std::string("UDID: unknown\nRTT: 1.23 ms\n"
                                                "Download: 100.00 MiB/s (838.9 Mbit/s)\n"
                                                "Upload: 50.50 MiB/s (423.6 Mbit/s)")));
    EXPECT_EQ(usbMux->rounds.back(),
              std::make_pair(std::uint16_t{33325}, std::uint64_t{0x3000000}));

    using Kind = SpeedTestError::Kind;
    for (auto [kind, text] : {std::pair{Kind::noDevices, "No devices connected"},
                              std::pair{Kind::connectionFailed,
                                        "Connection failed — ensure iPhone app is listening on "
                                        "port 33325"},
                              std::pair{Kind::other, "upload failed"}}) {
        usbMux->failure = SpeedTestError(kind, "upload failed");
        EXPECT_EQ(speedTest(*app).get(), std::make_tuple(false, std::string(text)));
    }
}

TEST_F(HarborXpcTest, SpeedTestKeepsTheRelayOffItsConnection) {
    auto extension = client(HarborBridgeClientRole::fileProvider);
    core->handleUsbDeviceEvent(1, "PHONE");
    auto first = relay(*extension, 1);
    opener->answer(0, 0, {});
    ASSERT_EQ(statusOf(std::move(first)), 0);

    runtime::OnceReply<void> roundMayEnd;
    std::promise<void> roundRunning;
    usbMux->duringRound = [&]() -> asio::awaitable<void> {
        roundRunning.set_value();
        co_await runtime::OnceReply<void>(roundMayEnd).wait();
    };
    auto done = speedTest(*extension);
    auto running = roundRunning.get_future();
    ASSERT_TRUE(skiff::testing::readyInTime(running));
    auto during = relay(*extension, 1);
    roundMayEnd.resume();
    done.get();

    opener->answer(1, 0, {});
    EXPECT_EQ(statusOf(std::move(during)), 0);
    EXPECT_EQ(opener->events(), (std::vector<std::string>{"open 33325", "invalidate 33325",
                                                          "invalidate 33325", "open 33325"}));
}

}  // namespace
}  // namespace skiff::service
