// skiffd following the phone's daemon: started while it is absent, and across restarts.

#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "e2e/service_stack.hpp"

namespace skiff::test {
namespace {

constexpr std::int64_t kFileProvider = 0;
constexpr std::int64_t kLookup = 2;
// The daemon must be followed within 2 s; the rest is room for a loaded machine.
constexpr auto kFollowWait = std::chrono::seconds(5);

TEST(UsbmuxdFollowE2eTest, TheServiceFollowsTheDaemonComingLateGoingAndReturning) {
    ServiceStack stack(writeNotes);
    stack.phone().stop();
    // skiffd starts its USB layer at once, here with no daemon to subscribe to; the client
    // then learns of the phone only through skiffd following the daemon.
    stack.restartService();
    auto extension = registerRecorded(stack, kFileProvider);
    auto& client = *extension.client;
    EXPECT_EQ(client.relayToUsbMux(kLookup, lookupBody("")).status, 3);

    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        auto mark = extension.recorder->count();
        stack.phone().start();
        ASSERT_TRUE(extension.recorder->waitForState({2, true}, mark, kFollowWait))
            << stack.service().output();
        EXPECT_EQ(client.relayToUsbMux(kLookup, lookupBody("Documents/notes.txt")).status, 0);
        if (round == 2) {
            break;
        }
        mark = extension.recorder->count();
        stack.phone().stop();
        ASSERT_TRUE(extension.recorder->waitForState({2, false}, mark, kFollowWait))
            << stack.service().output();
        EXPECT_EQ(client.relayToUsbMux(kLookup, lookupBody("")).status, 3);
    }
    const auto log = stack.service().output();
    EXPECT_NE(log.find("usbmuxd went away"), std::string::npos) << log;
    EXPECT_NE(log.find("usbmuxd appeared; listening for devices"), std::string::npos) << log;
}

}  // namespace
}  // namespace skiff::test
