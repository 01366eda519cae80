// Registry, notifications and start-up: the notification hub and the core, through the
// delegate and the host object as the bus adapter drives them.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>

#include "common/bridge_messages.hpp"
#include "common/log.hpp"
#include "common/notification_payloads.hpp"
#include "service/service_fakes.hpp"
#include "tunnel/tunnel_test_support.hpp"

namespace skiff::service {
namespace {

using skiff::testing::eventually;
using testing::FakeConnection;

constexpr const char* kExtensionPresent = R"({"source":0,"connected":true})";
constexpr const char* kExtensionGone = R"({"source":0,"connected":false})";
constexpr const char* kPhonePresent = R"({"source":2,"connected":true})";
constexpr const char* kPhoneGone = R"({"source":2,"connected":false})";

class BridgeCoreTest : public testing::CoreTest {
protected:
    void complete(BridgeCollaborators& collaborators) override {
        collaborators.probe.usbDidConnect = [this] { ++probeConnects; };
        collaborators.probe.usbDidDisconnect = [this] { ++probeDisconnects; };
    }

    bool registerAs(FakeConnection& connection, HarborBridgeClientRole role) {
        return registerRaw(connection, static_cast<std::int64_t>(role));
    }
    bool registerRaw(FakeConnection& connection, std::int64_t role) {
        std::optional<bool> accepted;
        connection.host().registerClient(role, [&](bool ok) { accepted = ok; });
        return accepted.value();
    }

    std::optional<std::int64_t> roleOf(FakeConnection& connection) {
        return hub->roleOfHost(connection.exportedObject());
    }

    static bool receivedInOrder(const FakeConnection& connection,
                                const std::vector<std::string>& bodies) {
        return eventually([&] {
            std::vector<std::string> got;
            for (const auto& n : connection.client->received()) {
                got.push_back(n.message == 0 ? n.body : "message " + std::to_string(n.message));
            }
            return got == bodies;
        });
    }

    std::atomic<int> probeConnects = 0;
    std::atomic<int> probeDisconnects = 0;
};

TEST_F(BridgeCoreTest, RegistryHoldsOneClientPerRoleAndForgetsTheLeavers) {
    log::LogCapture logs;
    auto first = connect();
    auto second = connect();
    auto extension = connect();
    auto link = connect();
    auto stranger = connect();
    for (const std::int64_t unknown : {3, -1}) {
        EXPECT_FALSE(registerRaw(*stranger, unknown));
    }
    EXPECT_EQ(roleOf(*stranger), std::nullopt);
    ASSERT_TRUE(registerAs(*first, HarborBridgeClientRole::fileProvider));
    ASSERT_TRUE(registerAs(*first, HarborBridgeClientRole::fileProvider));
    EXPECT_EQ(roleOf(*first), 0);
    // Registering under another role moves the entry.
    ASSERT_TRUE(registerAs(*first, HarborBridgeClientRole::desktopApp));
    EXPECT_EQ(roleOf(*first), 1);
    EXPECT_EQ(hub->clientProxy(0), nullptr);

    // A later registration replaces the earlier one silently; the replaced one is still served.
    ASSERT_TRUE(registerAs(*second, HarborBridgeClientRole::desktopApp));
    EXPECT_EQ(roleOf(*first), std::nullopt);
    EXPECT_EQ(hub->clientProxy(1), second->client);
    bool echoed = false;
    first->host().echo([&] { echoed = true; });
    EXPECT_TRUE(echoed);

    // Leaving removes the extension and the app, never the USB link.
    ASSERT_TRUE(registerAs(*extension, HarborBridgeClientRole::fileProvider));
    ASSERT_TRUE(registerAs(*link, HarborBridgeClientRole::usbMux));
    for (auto* leaver : {extension.get(), second.get(), link.get(), stranger.get()}) {
        leaver->invalidate();
    }
    EXPECT_EQ(hub->clientProxy(0), nullptr);
    EXPECT_EQ(hub->clientProxy(1), nullptr);
    EXPECT_EQ(roleOf(*link), 2);
    // Once invalidated while pending, the connection is forgotten altogether.
    EXPECT_FALSE(registerAs(*stranger, HarborBridgeClientRole::desktopApp));
    for (const char* line : {"accepted new connection", "connection invalidated",
                             "file provider disconnected", "desktop app disconnected"}) {
        EXPECT_TRUE(logs.contains(line)) << line;
    }
}

TEST_F(BridgeCoreTest, ClientsHearWhoIsThereAndWhatThePhoneDoes) {
    auto extension = connect();
    auto app = connect();
    // One at a time: a notification is addressed when it is sent, not when it is queued.
    ASSERT_TRUE(registerAs(*extension, HarborBridgeClientRole::fileProvider));
    // No desktop app yet: only the extension hears about the phone.
    ASSERT_TRUE(receivedInOrder(*extension, {kPhoneGone}));
    ASSERT_TRUE(registerAs(*app, HarborBridgeClientRole::desktopApp));
    ASSERT_TRUE(receivedInOrder(*extension, {kPhoneGone, kPhoneGone}));
    // Nothing from before its registration was kept for the app.
    ASSERT_TRUE(receivedInOrder(*app, {kExtensionPresent, kPhoneGone}));

    core->handleUsbDeviceEvent(1, "00008101-ABC");
    EXPECT_EQ(hub->usbMuxConnection(), "00008101-ABC");
    core->handleUsbDeviceEvent(2, "00008101-ABC");
    EXPECT_EQ(hub->usbMuxConnection(), std::nullopt);
    EXPECT_TRUE(receivedInOrder(*extension, {kPhoneGone, kPhoneGone, kPhonePresent, kPhoneGone}));
    EXPECT_TRUE(eventually([&] { return probeConnects == 1 && probeDisconnects == 1; }));

    extension->invalidate();
    EXPECT_TRUE(receivedInOrder(
        *app, {kExtensionPresent, kPhoneGone, kPhonePresent, kPhoneGone, kExtensionGone}));
}

TEST_F(BridgeCoreTest, WithSeveralPhonesTheLinkStaysUntilTheLastLeaves) {
    auto app = connect();
    ASSERT_TRUE(registerAs(*app, HarborBridgeClientRole::desktopApp));
    ASSERT_TRUE(receivedInOrder(*app, {kExtensionGone, kPhoneGone}));
    for (const char* leavesFirst : {"PHONE-A", "PHONE-B"}) {
        core->handleUsbDeviceEvent(1, "PHONE-A");
        core->handleUsbDeviceEvent(1, "PHONE-B");
        EXPECT_EQ(hub->usbMuxConnection(), "PHONE-A");
        core->handleUsbDeviceEvent(2, leavesFirst);
        const char* stays = std::string(leavesFirst) == "PHONE-A" ? "PHONE-B" : "PHONE-A";
        EXPECT_EQ(hub->usbMuxConnection(), stays);
        core->handleUsbDeviceEvent(2, stays);
        EXPECT_EQ(hub->usbMuxConnection(), std::nullopt);
    }
    // "Gone" only when the last phone left, each time.
    EXPECT_TRUE(receivedInOrder(*app, {kExtensionGone, kPhoneGone, kPhonePresent, kPhonePresent,
                                       kPhoneGone, kPhonePresent, kPhonePresent, kPhoneGone}));
    EXPECT_TRUE(eventually([&] { return probeDisconnects == 2; }));
}

TEST_F(BridgeCoreTest, UsbLayerStartsOnceAndAFailedStartIsNotRetried) {
    log::LogCapture logs;
    usbMux->failStart = true;
    core->bootstrapUsbMuxIfNeeded();
    core->bootstrapUsbMuxIfNeeded();
    ASSERT_TRUE(eventually([&] { return logs.contains("UsbMuxService start failed: "); }));
    core->bootstrapUsbMuxIfNeeded();
    EXPECT_EQ(usbMux->starts, 1);
    EXPECT_TRUE(logs.contains("bootstrapping UsbMuxService"));

    // The device handler was installed before the start, and it feeds the registry.
    UsbMuxLink::DeviceEventHandler handler;
    {
        std::lock_guard guard(usbMux->mutex);
        handler = usbMux->handler;
    }
    ASSERT_TRUE(handler);
    handler(1, "PHONE");
    EXPECT_EQ(hub->usbMuxConnection(), "PHONE");
}

TEST(NotificationCodes, GapAndRangeYieldNoMessageAndTextsDecodeExactly) {
    EXPECT_EQ(notifyMessageFromRaw(1), std::nullopt);
    auto bytes = [](std::string_view text) { return Bytes(text.begin(), text.end()); };
    EXPECT_FALSE(json::decode<MountControlNotifyPayload>(bytes(R"({"action":"Mount"})")));
    auto unmount = json::decode<MountControlNotifyPayload>(bytes(R"({"action":"unmount"})"));
    ASSERT_TRUE(unmount);
    EXPECT_EQ(unmount->action, MountControlNotifyPayload::Action::unmount);
    EXPECT_FALSE(
        json::decode<ItemMutationNotifyPayload>(bytes(R"({"kind":"moved","relayID":"x"})")));

    FileIOProgressPayload progress{*Uuid::parse("6ba7b810-9dad-11d1-80b4-00c04fd430c8"), 5, 10, 50};
    auto encoded = json::encode(progress);
    ASSERT_TRUE(encoded);
    EXPECT_EQ(std::string(encoded->begin(), encoded->end()),
              R"({"sessionID":"6BA7B810-9DAD-11D1-80B4-00C04FD430C8","completedBytes":5,)"
              R"("totalBytes":10,"percent":50})");
}

}  // namespace
}  // namespace skiff::service
