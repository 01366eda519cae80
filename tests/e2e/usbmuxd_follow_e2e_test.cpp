// skiffd following the phone's daemon: started while it is absent, and across a restart.

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>

#include "e2e/service_stack.hpp"
#include "relay/relay_schema.hpp"
#include "service/dbus/answering_client.hpp"

namespace skiff::test {
namespace {

constexpr std::int64_t kFileProvider = 0;
constexpr std::int64_t kLookup = 2;
// The daemon must be followed within 2 s; the rest is room for a loaded machine.
constexpr auto kFollowWait = std::chrono::seconds(5);

Bytes lookupBody(const std::string& identifier) {
    return json::encode(
               relay::RelayLookupRequest{identifier, relay::RelayLookupSource::fsLookupByName})
        .value();
}

// registerWithPhone without its wait: with no daemon running there is no phone to wait
// for, and the client then learns of it only through skiffd following the daemon.
RegisteredClient registerWithoutPhone(ServiceStack& stack) {
    RegisteredClient registered;
    registered.recorder = std::make_shared<NotificationRecorder>();
    registered.client = stack.connect(std::make_shared<service::dbus::AnsweringClient>(
        [recorder = registered.recorder](std::int64_t message, Bytes param) {
            recorder->record(message, std::move(param));
        }));
    if (!registered.client->registerClient(kFileProvider)) {
        throw std::runtime_error("the service refused the registration");
    }
    return registered;
}

class UsbmuxdFollowE2eTest : public ::testing::Test {
protected:
    ServiceStack stack_{writeNotes};
};

TEST_F(UsbmuxdFollowE2eTest, ADaemonStartedAfterTheServiceBringsThePhone) {
    stack_.phone().stop();
    // skiffd starts its USB layer at once, here with no daemon to subscribe to.
    stack_.restartService();
    auto extension = registerWithoutPhone(stack_);
    EXPECT_EQ(extension.client->relayToUsbMux(kLookup, lookupBody("")).status, 3);

    const auto mark = extension.recorder->count();
    stack_.phone().start();
    EXPECT_TRUE(extension.recorder->waitForState({2, true}, mark, kFollowWait))
        << stack_.service().output();
    EXPECT_EQ(extension.client->relayToUsbMux(kLookup, lookupBody("Documents/notes.txt")).status,
              0);
}

TEST_F(UsbmuxdFollowE2eTest, ARestartedDaemonTakesThePhoneAwayAndBringsItBack) {
    auto extension = registerWithPhone(stack_, kFileProvider);
    ASSERT_EQ(extension.client->relayToUsbMux(kLookup, lookupBody("")).status, 0);

    for (int round = 0; round < 2; ++round) {
        auto mark = extension.recorder->count();
        stack_.phone().stop();
        ASSERT_TRUE(extension.recorder->waitForState({2, false}, mark, kFollowWait))
            << "round " << round << "\n"
            << stack_.service().output();
        EXPECT_EQ(extension.client->relayToUsbMux(kLookup, lookupBody("")).status, 3);

        mark = extension.recorder->count();
        stack_.phone().start();
        ASSERT_TRUE(extension.recorder->waitForState({2, true}, mark, kFollowWait))
            << "round " << round << "\n"
            << stack_.service().output();
        EXPECT_EQ(
            extension.client->relayToUsbMux(kLookup, lookupBody("Documents/notes.txt")).status, 0);
    }
    const auto log = stack_.service().output();
    EXPECT_NE(log.find("usbmuxd went away"), std::string::npos) << log;
    EXPECT_NE(log.find("usbmuxd appeared; listening for devices"), std::string::npos) << log;
}

}  // namespace
}  // namespace skiff::test
