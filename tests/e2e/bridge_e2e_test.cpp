// skiffd between real clients on a private bus and the simulated phone.

#include <gtest/gtest.h>

#include <vector>

#include "common/run_sync.hpp"
#include "e2e/service_stack.hpp"
#include "relay/relay_schema.hpp"

namespace skiff::test {
namespace {

using relay::RelayItemSummary;
using relay::RelayLookupRequest;
using relay::RelayLookupSource;

constexpr std::int64_t kFileProvider = 0;
constexpr std::int64_t kDesktopApp = 1;
constexpr std::int64_t kLookup = 2;

class BridgeE2eTest : public ::testing::Test {
protected:
    ServiceStack stack_{writeNotes};
};

TEST_F(BridgeE2eTest, DesktopAppLearnsWhenTheExtensionComesAndGoes) {
    auto desktop = registerWithPhone(stack_, kDesktopApp);
    EXPECT_TRUE(desktop.recorder->waitForState({0, false}));

    auto mark = desktop.recorder->count();
    {
        auto extension = registerWithPhone(stack_, kFileProvider);
        EXPECT_TRUE(desktop.recorder->waitForState({0, true}, mark));
        // Both see each other through the service.
        EXPECT_TRUE(extension.client->ping(kDesktopApp));
        EXPECT_TRUE(desktop.client->ping(kFileProvider));
        mark = desktop.recorder->count();
    }
    // The extension's bus connection is gone: the service notices and tells the desktop.
    EXPECT_TRUE(desktop.recorder->waitForState({0, false}, mark));
    EXPECT_FALSE(desktop.client->ping(kFileProvider));
}

TEST_F(BridgeE2eTest, BothClientsHearThePhoneLeaveAndReturn) {
    auto desktop = registerWithPhone(stack_, kDesktopApp);
    auto extension = registerWithPhone(stack_, kFileProvider);

    auto desktopMark = desktop.recorder->count();
    auto extensionMark = extension.recorder->count();
    stack_.phone().detach(ServiceStack::kDevice);
    EXPECT_TRUE(desktop.recorder->waitForState({2, false}, desktopMark));
    EXPECT_TRUE(extension.recorder->waitForState({2, false}, extensionMark));
    // No phone: the relay is refused before it reaches any tunnel.
    EXPECT_EQ(extension.client->relayToUsbMux(kLookup, lookupBody("")).status, 3);

    desktopMark = desktop.recorder->count();
    extensionMark = extension.recorder->count();
    stack_.phone().attach(ServiceStack::kDevice);
    EXPECT_TRUE(desktop.recorder->waitForState({2, true}, desktopMark));
    EXPECT_TRUE(extension.recorder->waitForState({2, true}, extensionMark));
    EXPECT_EQ(extension.client->relayToUsbMux(kLookup, lookupBody("")).status, 0);
}

TEST_F(BridgeE2eTest, LookupTravelsToTheAppAndBack) {
    auto extension = registerWithPhone(stack_, kFileProvider);

    const auto found = extension.client->relayToUsbMux(kLookup, lookupBody("Documents/notes.txt"));
    ASSERT_EQ(found.status, 0);
    EXPECT_EQ(found.code, 0);
    const auto summary = json::decode<RelayItemSummary>(found.response);
    ASSERT_TRUE(summary);
    EXPECT_EQ(summary->identifier, "Documents/notes.txt");
    EXPECT_EQ(summary->filename, "notes.txt");
    EXPECT_EQ(summary->size, 12u);
    EXPECT_FALSE(summary->isDirectory);

    // The app's own answer code comes back as the detail of status 9.
    const auto missing = extension.client->relayToUsbMux(kLookup, lookupBody("Documents/none"));
    EXPECT_EQ(missing.status, 9);
    EXPECT_EQ(missing.code, 1);
    EXPECT_TRUE(missing.response.empty());
}

TEST_F(BridgeE2eTest, RelayReconnectsAfterTheConnectionDrops) {
    auto extension = registerWithPhone(stack_, kFileProvider);
    ASSERT_EQ(extension.client->relayToUsbMux(kLookup, lookupBody("")).status, 0);

    // The app hangs up on the next request: that request fails, the one after reconnects.
    stack_.phone().command("fault close on");
    EXPECT_EQ(extension.client->relayToUsbMux(kLookup, lookupBody("")).status, 3);
    stack_.phone().command("fault clear");
    EXPECT_EQ(extension.client->relayToUsbMux(kLookup, lookupBody("")).status, 0);

    // The phone side drops every stream between requests. Requests that meet the broken
    // tunnel before the service has noticed fail with 3; the relay must come back soon.
    ASSERT_GE(stack_.phone().drop(), 1u);
    std::vector<std::int64_t> statuses;
    do {
        statuses.push_back(extension.client->relayToUsbMux(kLookup, lookupBody("")).status);
    } while (statuses.back() == 3 && statuses.size() < 3);
    EXPECT_EQ(statuses.back(), 0) << statuses.size() << " attempts";
}

TEST_F(BridgeE2eTest, SpeedTestReportsTheDevice) {
    // The round moves 48 MiB each way, which takes a while under the sanitizers.
    auto client = stack_.connect();
    client->setCallTimeout(std::chrono::seconds(200));
    const auto [ok, text] = client->runUsbMuxSpeedTest();
    ASSERT_TRUE(ok) << text;
    EXPECT_EQ(text.rfind(std::string("UDID: ") + ServiceStack::kDevice + "\nRTT: ", 0), 0u) << text;
    EXPECT_NE(text.find(" ms\nDownload: "), std::string::npos) << text;
    EXPECT_NE(text.find(" MiB/s ("), std::string::npos) << text;
    EXPECT_NE(text.find("\nUpload: "), std::string::npos) << text;
}

TEST_F(BridgeE2eTest, WithTwoPhonesEitherCanLeaveAndRelaysGoOn) {
    const std::string second = "SIM-E2E-0002";
    stack_.phone().attach(second);
    auto extension = registerWithPhone(stack_, kFileProvider);
    const auto relayWorks = [&] {
        return skiff::testing::eventually([&] {
            return extension.client->relayToUsbMux(kLookup, lookupBody("Documents/notes.txt"))
                       .status == 0;
        });
    };
    ASSERT_TRUE(relayWorks());
    for (const std::string& leaving : {std::string(ServiceStack::kDevice), second}) {
        const auto mark = extension.recorder->count();
        stack_.phone().detach(leaving);
        EXPECT_TRUE(relayWorks()) << leaving << " left";
        stack_.phone().attach(leaving);
        EXPECT_FALSE(
            extension.recorder->waitForState({2, false}, mark, std::chrono::milliseconds(0)))
            << "the link was reported gone while a phone stayed";
    }
}

}  // namespace
}  // namespace skiff::test
