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

using skiff::testing::eventually;
using testing::FakeConnection;
using RelayResult = std::tuple<Bytes, std::int64_t, std::int64_t>;

constexpr std::size_t kLimit = 5'242'880;

class HarborXpcTest : public testing::CoreTest {
protected:
    void complete(BridgeCollaborators& collaborators) override {
        opener = std::make_shared<relay::testing::FakeOpener>(runtime.executor());
        collaborators.relayBridge = std::make_shared<relay::TunnelRelayBridge>(
            runtime.executor(), std::make_shared<tunnel::TunnelEngine>(runtime.executor()), opener);
        // No test here gets as far as a container file, so the container is never made.
        collaborators.transfers = std::make_shared<transfer::TransferCoordinator>(
            runtime.executor(), std::make_shared<RelayTransferSender>(collaborators.relayBridge),
            std::make_shared<transfer::SharedFileStorage>("/nonexistent/skiff-container"));
        collaborators.volume = volume;
        collaborators.volumeListener = listener;
    }

    std::future<std::pair<Bytes, std::int64_t>> fileIO(FakeConnection& from, std::int64_t op,
                                                       std::string_view json) {
        auto promise = std::make_shared<std::promise<std::pair<Bytes, std::int64_t>>>();
        from.host().requestFileIO(op, Bytes(json.begin(), json.end()),
                                  [promise](Bytes data, std::int64_t status) {
                                      promise->set_value({std::move(data), status});
                                  });
        return promise->get_future();
    }
    static std::int64_t fileIOStatusOf(std::future<std::pair<Bytes, std::int64_t>> reply) {
        EXPECT_TRUE(skiff::testing::readyInTime(reply));
        auto [data, status] = reply.get();
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

    std::future<RelayResult> relay(FakeConnection& from, std::size_t size) {
        auto promise = std::make_shared<std::promise<RelayResult>>();
        from.host().relayToUsbMux(2, Bytes(size, 0x5A),
                                  [promise](Bytes data, std::int64_t status, std::int64_t code) {
                                      promise->set_value({std::move(data), status, code});
                                  });
        return promise->get_future();
    }
    static std::int64_t statusOf(std::future<RelayResult> reply) {
        EXPECT_TRUE(skiff::testing::readyInTime(reply));
        auto [data, status, code] = reply.get();
        EXPECT_TRUE(data.empty());
        EXPECT_EQ(code, 0);
        return status;
    }

    std::future<std::pair<bool, std::string>> speedTest(FakeConnection& from) {
        auto promise = std::make_shared<std::promise<std::pair<bool, std::string>>>();
        from.host().runUsbMuxSpeedTest([promise](bool ok, std::string text) {
            promise->set_value({ok, std::move(text)});
        });
        return promise->get_future();
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
    ASSERT_TRUE(skiff::testing::readyInTime(reply));
    EXPECT_EQ(std::get<0>(reply.get()), (Bytes{1, 2, 3}));
}

TEST_F(HarborXpcTest, StatusFollowsPhonesInArrivalOrderAndTheFileProvider) {
    auto stranger = client(std::nullopt);
    auto statusNow = [&] {
        std::promise<Bytes> answer;
        stranger->host().getStatus([&](Bytes body) { answer.set_value(std::move(body)); });
        auto future = answer.get_future();
        EXPECT_TRUE(skiff::testing::readyInTime(future));
        return json::decode<ServiceStatus>(future.get()).value_or(ServiceStatus{-1, {}, false});
    };
    EXPECT_EQ(statusNow(), (ServiceStatus{kBuildNumber, {}, false}));

    auto extension = client(HarborBridgeClientRole::fileProvider);
    for (const auto* udid : {"B", "A", "B"}) {  // a repeated arrival keeps its place
        core->handleUsbDeviceEvent(1, udid);
    }
    EXPECT_EQ(statusNow(), (ServiceStatus{kBuildNumber, {"B", "A"}, true}));
    core->handleUsbDeviceEvent(2, "B");  // removed
    EXPECT_EQ(statusNow().attachedDevices, std::vector<std::string>{"A"});
}

TEST_F(HarborXpcTest, PingReachesOtherRolesThroughTheirEcho) {
    auto stranger = client(std::nullopt);
    auto app = client(HarborBridgeClientRole::desktopApp);
    std::optional<bool> answer;
    auto ping = [&](FakeConnection& from, HarborBridgeClientRole target) {
        answer.reset();
        from.host().ping(static_cast<std::int64_t>(target), [&](bool ok) { answer = ok; });
        return answer;
    };

    EXPECT_EQ(ping(*stranger, HarborBridgeClientRole::desktopApp), false);
    EXPECT_EQ(ping(*app, HarborBridgeClientRole::desktopApp), true);
    EXPECT_EQ(ping(*app, HarborBridgeClientRole::fileProvider), false);
    auto extension = client(HarborBridgeClientRole::fileProvider);
    EXPECT_EQ(ping(*app, HarborBridgeClientRole::fileProvider), true);
    EXPECT_EQ(extension->client->echoCount(), 1);
    EXPECT_EQ(app->client->echoCount(), 0);
}

TEST_F(HarborXpcTest, ExtensionMeasurementsNeedTheExtension) {
    auto app = client(HarborBridgeClientRole::desktopApp);
    std::vector<double> results;
    auto keep = [&](double value) { results.push_back(value); };
    app->host().requestHostToExtThroughput(8, 2, keep);
    app->host().requestExtToHostPing(4, keep);
    app->host().requestExtToHostThroughput(8, 2, keep);
    EXPECT_EQ(results, (std::vector<double>{-1.0, -1.0, -1.0}));

    client(HarborBridgeClientRole::fileProvider);
    results.clear();
    app->host().requestExtToHostPing(4, keep);
    app->host().requestExtToHostThroughput(8, 2, keep);
    EXPECT_EQ(results, (std::vector<double>{2.0, 16.0}));  // the extension's own answers
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

TEST_F(HarborXpcTest, FileIOAnswersItsGuardsBeforeAnyTransfer) {
    const std::string beginRead =
        R"({"identifier":"x","sessionID":"00000000-0000-0000-0000-000000000001"})";
    auto stranger = client(std::nullopt);
    EXPECT_EQ(fileIOStatusOf(fileIO(*stranger, 0, beginRead)), 1);
    auto usbMuxClient = client(HarborBridgeClientRole::usbMux);
    EXPECT_EQ(fileIOStatusOf(fileIO(*usbMuxClient, 1, R"({"token":"t"})")), 1);

    auto app = client(HarborBridgeClientRole::desktopApp);
    EXPECT_EQ(fileIOStatusOf(fileIO(*app, 0, R"({"identifier":"x"})")), 3);
    EXPECT_EQ(fileIOStatusOf(fileIO(*app, 3, "not json")), 3);
    EXPECT_EQ(fileIOStatusOf(fileIO(*app, 0, beginRead)), 4);  // no phone attached
    // A release needs no phone, and an unknown token is fine.
    EXPECT_EQ(fileIOStatusOf(fileIO(*app, 1, R"({"token":"never"})")), 0);
    EXPECT_THROW(app->host().requestFileIO(4, {}, [](Bytes, std::int64_t) {}), InvalidArgs);
}

TEST_F(HarborXpcTest, APhonesRefusalOfATransferAnswersWithTheAppsRejection) {
    auto app = client(HarborBridgeClientRole::desktopApp);
    core->handleUsbDeviceEvent(1, "PHONE");
    auto reply = fileIO(
        *app, 0, R"({"identifier":"gone","sessionID":"00000000-0000-0000-0000-000000000001"})");
    const auto rejection = json::encode(transfer::FileIODeviceRejection{6}).value();
    opener->answer(0, 6, rejection);
    ASSERT_TRUE(skiff::testing::readyInTime(reply));
    const auto [body, status] = reply.get();
    EXPECT_EQ(status, static_cast<std::int64_t>(transfer::FileIOBridgeError::deviceRejected));
    EXPECT_EQ(body, rejection);
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
        auto promise = std::make_shared<std::promise<bool>>();
        app->host().shutdown([promise](bool ok) { promise->set_value(ok); });
        auto replied = promise->get_future();
        if (c.phone) {
            auto& app = opener->peer(0);
            auto notice = app.readFrame();
            EXPECT_EQ(notice.header.code, 20);
            EXPECT_TRUE(notice.payload.empty());
            app.writeFrame(tunnel::FrameKind::response, 0, notice.header.flow);
            ++notices;
        }
        ASSERT_TRUE(skiff::testing::readyInTime(replied));
        EXPECT_EQ(replied.get(), c.reply);
        EXPECT_TRUE(capture.contains(c.line));
        EXPECT_EQ(capture.contains("filesystemUnmounted — iOS notified"), c.phone);
        EXPECT_EQ(listener->unmounts, unmountsBefore + 1);
        if (c.mounted) {
            EXPECT_EQ(volume->unmounts().back(), true);
        }
    }
    EXPECT_EQ(opener->events().size(), 1u) << "one tunnel carried every notice";
}

TEST_F(HarborXpcTest, SpeedTestReportsAndNamesItsFailures) {
    auto app = client(HarborBridgeClientRole::desktopApp);
    usbMux->measurement = {"", 1.234, 100.0, 838.8608, 50.5, 423.6};
    auto done = speedTest(*app);
    ASSERT_TRUE(skiff::testing::readyInTime(done));
    EXPECT_EQ(done.get(), std::make_pair(true, std::string("UDID: unknown\nRTT: 1.23 ms\n"
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
        auto failed = speedTest(*app);
        ASSERT_TRUE(skiff::testing::readyInTime(failed));
        EXPECT_EQ(failed.get(), std::make_pair(false, std::string(text)));
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
    ASSERT_TRUE(skiff::testing::readyInTime(done));

    opener->answer(1, 0, {});
    EXPECT_EQ(statusOf(std::move(during)), 0);
    EXPECT_EQ(opener->events(), (std::vector<std::string>{"open 33325", "invalidate 33325",
                                                          "invalidate 33325", "open 33325"}));
}

}  // namespace
}  // namespace skiff::service
