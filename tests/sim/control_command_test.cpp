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

TEST(ControlCommand, ParsesCommandsTheirUdidAndTheAppsTexts) {
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

    // App texts keep their inner spaces.
    auto push = parsed("push 3 {\"a\": 1,  \"b\": 2}");
    EXPECT_EQ(push.verb, ControlVerb::app);
    EXPECT_EQ(push.app.code, 3);
    EXPECT_EQ(push.app.text, "{\"a\": 1,  \"b\": 2}");
    EXPECT_EQ(parsed("push 65535").app.text, "");
    EXPECT_EQ(parsed("push 1 \"\"").app.text, "");

    auto pong = parsed("fault pong  NOT PONG ").app;
    EXPECT_TRUE(pong.on);
    EXPECT_EQ(pong.text, "NOT PONG");
    EXPECT_FALSE(parsed("fault ack off").app.on);
    EXPECT_TRUE(parsed("fault ack off the record").app.on);
    EXPECT_EQ(parsed("fault status 0").app.code, 0);
    EXPECT_TRUE(parsed("fault status 0").app.on);
    EXPECT_FALSE(parsed("fault delay 0").app.on);
    EXPECT_EQ(parsed("fault fail-chunk 3").app.chunk, 3u);
    EXPECT_EQ(parsed("fault drop-at-chunk 18446744073709551615").app.fault, AppFault::dropAtChunk);
    EXPECT_FALSE(parsed("fault drop-at-chunk off").app.on);
    const std::pair<const char*, AppFault> switches[] = {
        {"endless-list", AppFault::endlessList},  {"bad-names", AppFault::badNames},
        {"non-utf8-name", AppFault::nonUtf8Name}, {"foreign-entry", AppFault::foreignEntry},
        {"short-chunk", AppFault::shortChunk},    {"silent", AppFault::silent}};
    for (const auto& [name, fault] : switches) {
        EXPECT_EQ(parsed(std::string("fault ") + name + " on").app.fault, fault) << name;
        EXPECT_FALSE(parsed(std::string("fault ") + name + " off").app.on) << name;
    }

    using Kind = service::ItemMutationNotifyPayload::Kind;
    auto created = parsed("poke created docs/my notes.txt ");
    EXPECT_EQ(created.app.verb, AppVerb::poke);
    EXPECT_EQ(created.app.pokeKind, Kind::created);
    EXPECT_EQ(created.app.text, "docs/my notes.txt");
    auto deleted = parsed("poke deleted /outside");
    EXPECT_EQ(deleted.app.pokeKind, Kind::deleted);
    EXPECT_EQ(deleted.app.text, "/outside");  // the service's own checks are what it tests
}

TEST(ControlCommand, FloodSizeAndDurationStayInRange) {
    auto flood = parsed(" flood 2 5242880\t600 ").app;
    EXPECT_EQ(flood.verb, AppVerb::flood);
    EXPECT_EQ(flood.code, 2);
    EXPECT_EQ(flood.floodBytes, 5'242'880u);
    EXPECT_EQ(flood.floodSeconds, 600u);
    EXPECT_EQ(parsed("flood 65535 0 1").app.floodBytes, 0u);

    struct Case {
        std::string_view line;
        std::string_view error;
    };
    const Case refused[] = {
        {"flood 2 5242881 1", "at most 5242880 bytes"},
        {"flood 2 0 0", "1 to 600 seconds"},
        {"flood 2 0 601", "1 to 600 seconds"},
        {"flood 2 0 4294967297", "1 to 600 seconds"},
        {"flood 2 1024", "flood takes"},
        {"flood 2 1024 1 more", "flood takes"},
        {"flood 65536 0 1", "flood takes"},
        {"flood 2 1k 1", "flood takes"},
    };
    for (const auto& [line, error] : refused) {
        auto result = parseControlCommand(line);
        ASSERT_TRUE(std::holds_alternative<std::string>(result)) << line;
        EXPECT_THAT(std::get<std::string>(result), ::testing::HasSubstr(error)) << line;
    }
}

TEST(ControlCommand, RejectsWrongShapes) {
    for (std::string_view line : {"",
                                  "   ",
                                  "attach",
                                  "detach",
                                  "replug",
                                  "list x",
                                  "attach a b",
                                  "drop a b",
                                  "reboot",
                                  "LIST",
                                  "push",
                                  "push 65536",
                                  "push -1 x",
                                  "poke",
                                  "poke created",
                                  "poke created \"\"",
                                  "poke moved a.txt",
                                  "poke Created a.txt",
                                  "fault status 7x",
                                  "fault delay",
                                  "fault silent maybe",
                                  "fault close on now",
                                  "fault short-chunk",
                                  "fault endless-list yes",
                                  "fault pong",
                                  "fault clear all",
                                  "fault fail-chunk 0",
                                  "fault fail-chunk",
                                  "fault drop-at-chunk 2 3",
                                  "fault nothing",
                                  "inject",
                                  "inject bad-header 2",
                                  "received all"}) {
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
