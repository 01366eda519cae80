// skiffd between real clients on a private bus and the simulated phone.

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "common/run_sync.hpp"
#include "e2e/service_stack.hpp"
#include "relay/item_requests.hpp"
#include "service/dbus/client_session.hpp"
#include "service/service_status.hpp"

namespace skiff::test {
namespace {

constexpr std::int64_t kFileProvider = 0;
constexpr std::int64_t kDesktopApp = 1;
constexpr std::int64_t kLookup = 2;

// Whether `line` was logged after the first `after` in skiffd's output.
bool loggedAfter(ChildProcess& skiffd, const std::string& after, const std::string& line) {
    const auto output = skiffd.output();
    const auto from = output.find(after);
    return from != std::string::npos && output.find(line, from + after.size()) != std::string::npos;
}

TEST(BridgeE2eTest, ClientsHearEachOtherAndThePhoneComeAndGo) {
    ServiceStack stack(writeNotes);
    {
        // First, while the phone has not yet left: the probe notices a silent app and its
        // return. It takes real periods of 3 s, so this is the only such check.
        SCOPED_TRACE("relay probe");
        constexpr const char* kReachable = "[relay-probe] iOS relay reachable";
        constexpr const char* kUnreachable = "[relay-probe] iOS relay unreachable";
        auto& skiffd = stack.service();
        ASSERT_TRUE(skiffd.waitForOutput(kReachable, kE2eWait)) << skiffd.output();
        stack.phone().command("fault silent on");
        ASSERT_TRUE(skiffd.waitForOutput(kUnreachable, kE2eWait)) << skiffd.output();
        stack.phone().command("fault silent off");
        EXPECT_TRUE(skiff::testing::eventually([&] {
            return loggedAfter(skiffd, kUnreachable, kReachable);
        })) << skiffd.output();
    }
    auto desktop = registerWithPhone(stack, kDesktopApp);
    EXPECT_TRUE(desktop.recorder->waitForState({0, false}));
    auto mark = desktop.recorder->count();
    {
        auto extension = registerWithPhone(stack, kFileProvider);
        EXPECT_TRUE(desktop.recorder->waitForState({0, true}, mark));
        EXPECT_TRUE(extension.client->ping(kDesktopApp));
        EXPECT_TRUE(desktop.client->ping(kFileProvider));

        for (const bool attached : {false, true}) {
            SCOPED_TRACE(attached ? "phone back" : "phone gone");
            const auto desktopMark = desktop.recorder->count();
            const auto extensionMark = extension.recorder->count();
            if (attached) {
                stack.phone().attach(ServiceStack::kDevice);
            } else {
                stack.phone().detach(ServiceStack::kDevice);
            }
            EXPECT_TRUE(desktop.recorder->waitForState({2, attached}, desktopMark));
            EXPECT_TRUE(extension.recorder->waitForState({2, attached}, extensionMark));
            // Without a phone the relay is refused before it reaches any tunnel.
            EXPECT_EQ(extension.client->relayToUsbMux(kLookup, lookupBody("")).status,
                      attached ? 0 : 3);
        }
        mark = desktop.recorder->count();
    }
    // The extension's bus connection is gone: the service notices and tells the desktop.
    EXPECT_TRUE(desktop.recorder->waitForState({0, false}, mark));
    EXPECT_FALSE(desktop.client->ping(kFileProvider));

    // A later file provider displaces a volume's session, which hears it at once and takes
    // the role back when that client leaves.
    service::dbus::ClientSession volume(stack.busAddress(), std::chrono::seconds(20));
    ASSERT_TRUE(volume.client().registerClient(kFileProvider));
    std::atomic<int> lost{0}, back{0};
    volume.keepRegistered(kFileProvider, [&](bool registered) { ++(registered ? back : lost); });
    {
        auto tool = registerWithPhone(stack, kFileProvider);
        EXPECT_TRUE(skiff::testing::eventually([&] { return lost == 1; }));
        const auto status = json::decode<service::ServiceStatus>(desktop.client->getStatus());
        EXPECT_TRUE(status && status->fileProviderReplaced.value_or(false));
    }
    EXPECT_TRUE(skiff::testing::eventually([&] { return back == 1; }));
    EXPECT_TRUE(desktop.client->ping(kFileProvider));
}

TEST(BridgeE2eTest, RelaysOutliveDroppedStreamsAndEitherOfTwoPhonesLeaving) {
    ServiceStack stack(writeNotes);
    auto extension = registerWithPhone(stack, kFileProvider);
    auto& client = *extension.client;
    ASSERT_EQ(client.relayToUsbMux(kLookup, lookupBody("")).status, 0);

    // The app hangs up on the next request: that request fails, the one after reconnects.
    stack.phone().command("fault close on");
    EXPECT_EQ(client.relayToUsbMux(kLookup, lookupBody("")).status, 3);
    stack.phone().command("fault clear");
    EXPECT_EQ(client.relayToUsbMux(kLookup, lookupBody("")).status, 0);

    // The phone side drops every stream between requests. Requests that meet the broken
    // tunnel before the service has noticed fail with 3; the relay must come back soon.
    ASSERT_GE(stack.phone().drop(), 1u);
    std::vector<std::int64_t> statuses;
    do {
        statuses.push_back(client.relayToUsbMux(kLookup, lookupBody("")).status);
    } while (statuses.back() == 3 && statuses.size() < 3);
    EXPECT_EQ(statuses.back(), 0) << statuses.size() << " attempts";

    const std::string second = "SIM-E2E-0002";
    stack.phone().attach(second);
    const auto relayWorks = [&] {
        return skiff::testing::eventually([&] {
            return client.relayToUsbMux(kLookup, lookupBody("Documents/notes.txt")).status == 0;
        });
    };
    for (const std::string& leaving : {std::string(ServiceStack::kDevice), second}) {
        const auto mark = extension.recorder->count();
        stack.phone().detach(leaving);
        EXPECT_TRUE(relayWorks()) << leaving << " left";
        stack.phone().attach(leaving);
        EXPECT_FALSE(
            extension.recorder->waitForState({2, false}, mark, std::chrono::milliseconds(0)))
            << "the link was reported gone while a phone stayed";
    }
}

TEST(BridgeE2eTest, AnOrderedRelayReachesTheAppInOrderAndChecksEachRequest) {
    ServiceStack stack(writeNotes);
    auto extension = registerWithPhone(stack, kFileProvider);
    using relay::UsbMuxRelaySelector;
    const auto item = [](UsbMuxRelaySelector selector, const std::string& identifier) {
        return service::OrderedRelayRequest{
            static_cast<std::int64_t>(selector),
            json::encode(relay::RelayItemRequest{identifier}).value()};
    };
    // Each request depends on the one before having been handled: only arrival order
    // makes every answer right. A body over the limit is refused alone.
    const auto answers = extension.client->relayToUsbMuxInOrder({
        item(UsbMuxRelaySelector::makeDirectory, "Documents/o"),
        {kLookup, lookupBody("Documents/o")},
        {kLookup, Bytes(service::kMaxRelayBodyBytes + 1, '{')},
        item(UsbMuxRelaySelector::removeItem, "Documents/o"),
        {kLookup, lookupBody("Documents/o")},
    });
    std::vector<std::pair<std::int64_t, std::int64_t>> outcomes;
    for (const auto& answer : answers) {
        outcomes.emplace_back(answer.status, answer.code);
    }
    const std::int64_t tooLarge = 7, refused = 9, notFound = 1;
    EXPECT_EQ(outcomes, (std::vector<std::pair<std::int64_t, std::int64_t>>{
                            {0, 0}, {0, 0}, {tooLarge, 0}, {0, 0}, {refused, notFound}}));

    // What no correct client sends is refused as a whole; an unregistered one is told.
    EXPECT_THROW(extension.client->relayToUsbMuxInOrder({{70000, {}}}), service::dbus::BusError);
    EXPECT_THROW(extension.client->relayToUsbMuxInOrder(
                     std::vector<service::OrderedRelayRequest>(service::kMaxOrderedRelays + 1)),
                 service::dbus::BusError);
    auto stranger = stack.connect();
    const auto unregistered = stranger->relayToUsbMuxInOrder({{kLookup, lookupBody("")}});
    ASSERT_EQ(unregistered.size(), 1u);
    EXPECT_EQ(unregistered[0].status, 1);
}

}  // namespace
}  // namespace skiff::test
