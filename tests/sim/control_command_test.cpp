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

TEST(ControlCommand, ParsesCommandsAndTheirUdid) {
    EXPECT_EQ(parsed("list").verb, ControlVerb::list);
    auto attach = parsed("  attach\tABC-1 \r");
    EXPECT_EQ(attach.verb, ControlVerb::attach);
    EXPECT_EQ(attach.udid, "ABC-1");
    auto blank = parsed("attach \"\"");
    EXPECT_TRUE(blank.hasUdid);
    EXPECT_EQ(blank.udid, "");
    EXPECT_FALSE(parsed("drop").hasUdid);
    EXPECT_EQ(parsed("drop x").udid, "x");
    EXPECT_EQ(parsed("replug x").verb, ControlVerb::replug);
}

TEST(ControlCommand, RejectsWrongShapes) {
    for (std::string_view line : {"", "   ", "attach", "detach", "replug", "list x", "attach a b",
                                  "drop a b", "reboot", "LIST"}) {
        EXPECT_TRUE(std::holds_alternative<std::string>(parseControlCommand(line))) << line;
    }
}

TEST(ControlCommand, RepliesEndWithOkOrError) {
    ControlReply ok;
    ok.lines = {"1 a", "2 b"};
    EXPECT_EQ(formatControlReply(ok), "1 a\n2 b\nok\n");
    ControlReply failed;
    failed.ok = false;
    failed.error = "a is not attached";
    EXPECT_EQ(formatControlReply(failed), "error: a is not attached\n");
}

}  // namespace
}  // namespace skiff::sim
