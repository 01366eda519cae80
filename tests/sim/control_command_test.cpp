#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sim/control_command.hpp"

namespace skiff::sim {
namespace {

ControlCommand parsed(std::string_view line) {
    auto result = parseControlCommand(line);
    EXPECT_TRUE(std::holds_alternative<ControlCommand>(result)) << line;
    return std::holds_alternative<ControlCommand>(result) ? std::get<ControlCommand>(result)
                                                          : ControlCommand{};
}

// The commands tests send every day are exercised end to end; these are the spellings a
// test rarely sends.
TEST(ControlCommand, ParsesBlankUdidsAndTextsThatKeepTheirSpaces) {
    auto attach = parsed("  attach\tABC-1 \r");
    EXPECT_EQ(attach.verb, ControlVerb::attach);
    EXPECT_EQ(attach.udid, "ABC-1");
    EXPECT_TRUE(parsed("attach \"\"").hasUdid);
    EXPECT_FALSE(parsed("drop").hasUdid);
    EXPECT_EQ(parsed("push 3 {\"a\": 1,  \"b\": 2}").app.text, "{\"a\": 1,  \"b\": 2}");
    EXPECT_EQ(parsed("push 1 \"\"").app.text, "");
    EXPECT_EQ(parsed("fault pong  NOT PONG ").app.text, "NOT PONG");
    EXPECT_FALSE(parsed("fault ack off").app.on);
    EXPECT_TRUE(parsed("fault ack off the record").app.on);
    EXPECT_TRUE(parsed("fault status 0").app.on);
    EXPECT_FALSE(parsed("fault delay 0").app.on);
    const auto poke = parsed("poke created docs/my notes.txt ").app;
    EXPECT_EQ(poke.pokeKind, service::ItemMutationNotifyPayload::Kind::created);
    EXPECT_EQ(poke.text, "docs/my notes.txt");
}

TEST(ControlCommand, FloodSizeAndDurationStayInRange) {
    auto flood = parsed(" flood 2 5242880\t600 ").app;
    EXPECT_EQ(flood.floodBytes, 5'242'880u);
    EXPECT_EQ(flood.floodSeconds, 600u);

    struct Case {
        std::string_view line;
        std::string_view error;
    };
    const Case refused[] = {
        {"flood 2 5242881 1", "at most 5242880 bytes"},
        {"flood 2 0 0", "1 to 600 seconds"},
        {"flood 2 1024", "flood takes"},
        {"flood 2 1k 1", "flood takes"},
    };
    for (const auto& [line, error] : refused) {
        auto result = parseControlCommand(line);
        ASSERT_TRUE(std::holds_alternative<std::string>(result)) << line;
        EXPECT_THAT(std::get<std::string>(result), ::testing::HasSubstr(error)) << line;
    }
}

TEST(ControlCommand, RejectsWrongShapes) {
    for (std::string_view line :
         {"", "   ", "attach", "list x", "drop a b", "reboot", "push", "push 65536", "poke",
          "poke created \"\"", "poke moved a.txt", "fault status 7x", "fault silent maybe",
          "fault short-chunk", "fault clear all", "fault fail-chunk 0", "fault nothing",
          "inject bad-header 2", "received all"}) {
        EXPECT_TRUE(std::holds_alternative<std::string>(parseControlCommand(line))) << line;
    }
}

}  // namespace
}  // namespace skiff::sim
