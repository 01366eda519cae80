#include <gtest/gtest.h>

#include "sim/control_command.hpp"

namespace skiff::sim {
namespace {

AppCommand parsed(const std::string& line) {
    auto result = parseControlCommand(line);
    auto* command = std::get_if<ControlCommand>(&result);
    if (command == nullptr) {
        ADD_FAILURE() << line << ": " << std::get<std::string>(result);
        return {};
    }
    EXPECT_EQ(command->verb, ControlVerb::app);
    return command->app;
}

TEST(AppCommand, TextsKeepTheirInnerSpaces) {
    auto push = parsed("push 3 {\"a\": 1,  \"b\": 2}");
    EXPECT_EQ(push.code, 3);
    EXPECT_EQ(push.text, "{\"a\": 1,  \"b\": 2}");
    EXPECT_EQ(parsed("push 65535").text, "");
    EXPECT_EQ(parsed("push 1 \"\"").text, "");

    auto pong = parsed("fault pong  NOT PONG ");
    EXPECT_TRUE(pong.on);
    EXPECT_EQ(pong.text, "NOT PONG");
    EXPECT_FALSE(parsed("fault ack off").on);
    EXPECT_TRUE(parsed("fault ack off the record").on);
}

TEST(AppCommand, NumbersAndSwitchesAreChecked) {
    EXPECT_EQ(parsed("fault status 0").code, 0);
    EXPECT_TRUE(parsed("fault status 0").on);
    EXPECT_FALSE(parsed("fault delay 0").on);
    for (const char* bad :
         {"push", "push 65536", "push -1 x", "fault status 7x", "fault delay", "fault silent maybe",
          "fault close on now", "fault pong", "fault clear all", "fault nothing", "inject",
          "inject bad-header 2", "received all"}) {
        EXPECT_TRUE(std::holds_alternative<std::string>(parseControlCommand(bad))) << bad;
    }
}

}  // namespace
}  // namespace skiff::sim
