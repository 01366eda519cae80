#include "relay/item_requests.hpp"

#include <gtest/gtest.h>

#include <string>

#include "common/byte_text.hpp"

namespace {

using namespace skiff::relay;
using skiff::json::decode;
using skiff::json::encode;
using skiff::testing::bytesOf;
using skiff::testing::textOf;

TEST(ItemRequests, IdentifiersHaveOneSpellingPerItem) {
    const std::vector<std::pair<std::string, bool>> cases = {
        {"", true},        {"a", true},       {"a/b/c.txt", true},
        {"..a/b..", true}, {".hidden", true}, {"/", false},
        {"/a", false},     {"a/", false},     {"a//b", false},
        {".", false},      {"..", false},     {"a/./b", false},
        {"a/../b", false}, {"a/..", false},   {std::string("a\0b", 3), false},
    };
    for (const auto& [identifier, valid] : cases) {
        EXPECT_EQ(isValidItemIdentifier(identifier), valid) << identifier;
    }
}

TEST(ItemRequests, RequestsCodeExactKeysAndLeaveAbsentCursorOut) {
    EXPECT_EQ(textOf(*encode(RelayListRequest{"docs", std::nullopt})), R"({"identifier":"docs"})");
    EXPECT_EQ(textOf(*encode(RelayListRequest{"", "17"})), R"({"identifier":"","cursor":"17"})");
    EXPECT_EQ(textOf(*encode(RelayItemRequest{"a/b"})), R"({"identifier":"a/b"})");
    EXPECT_EQ(textOf(*encode(RelayRenameRequest{"a", "b/c"})),
              R"({"identifier":"a","newIdentifier":"b/c"})");
    EXPECT_EQ(decode<RelayListRequest>(bytesOf(R"({"identifier":"x","cursor":null})")),
              (RelayListRequest{"x", std::nullopt}));

    for (const char* text : {R"({"cursor":"1"})", R"({"identifier":"x","cursor":1})",
                             R"({"identifier":7})", R"(["x"])", R"({"identifier":"x")"}) {
        EXPECT_FALSE(decode<RelayListRequest>(bytesOf(text))) << text;
    }
    for (const char* text : {R"({"identifier":"a"})", R"({"newIdentifier":"b"})",
                             R"({"identifier":"a","newIdentifier":null})"}) {
        EXPECT_FALSE(decode<RelayRenameRequest>(bytesOf(text))) << text;
    }
}

TEST(ItemRequests, ListReplyRoundTripsAndRejectsABadItem) {
    RelayItemSummary item;
    item.identifier = "d/x";
    item.filename = "x";
    item.size = 3;
    const RelayListReply reply{{item, item}, "page-2"};
    const auto body = encode(reply);
    ASSERT_TRUE(body);
    EXPECT_EQ(decode<RelayListReply>(*body), reply);
    EXPECT_EQ(textOf(*encode(RelayListReply{})), R"({"items":[]})");

    auto j = skiff::json::toJson(reply);
    j["items"][1]["size"] = -1;
    EXPECT_FALSE(decode<RelayListReply>(bytesOf(j.dump())));
    EXPECT_FALSE(decode<RelayListReply>(bytesOf(R"({"nextCursor":"1"})")));
    EXPECT_FALSE(decode<RelayListReply>(bytesOf(R"({"items":{}})")));
}

}  // namespace
