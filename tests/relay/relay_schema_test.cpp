#include "relay/relay_schema.hpp"

#include <gtest/gtest.h>

#include <string>

#include "common/byte_text.hpp"
#include "relay/item_requests.hpp"

namespace {

using namespace skiff::relay;
using skiff::json::decode;
using skiff::json::encode;
using skiff::testing::bytesOf;
using skiff::testing::textOf;

RelayItemSummary summary() {
    RelayItemSummary s;
    s.identifier = "id-7";
    s.filename = "notes.txt";
    s.isDirectory = false;
    s.inode = 18446744073709551615ULL;
    s.size = 12;
    s.allocSize = 4096;
    s.mode = 4294967295U;
    s.uid = 501;
    s.gid = 20;
    s.flags = 0;
    s.linkCount = 1;
    s.accessTime = {-1, -2147483648};
    s.modifyTime = {9223372036854775807LL, 2147483647};
    s.changeTime = {3, 4};
    s.birthTime = {5, 6};
    s.contentVersion = Bytes{1, 2, 3};
    return s;
}

constexpr const char* kSummaryText =
    R"({"identifier":"id-7","filename":"notes.txt","isDirectory":false,)"
    R"("inode":18446744073709551615,"size":12,"allocSize":4096,"mode":4294967295,)"
    R"("uid":501,"gid":20,"flags":0,"linkCount":1,)"
    R"("accessTime":{"tvSec":-1,"tvNsec":-2147483648},)"
    R"("modifyTime":{"tvSec":9223372036854775807,"tvNsec":2147483647},)"
    R"("changeTime":{"tvSec":3,"tvNsec":4},"birthTime":{"tvSec":5,"tvNsec":6},)"
    R"("contentVersion":"AQID"})";

TEST(RelaySchema, ItemSummaryRoundTripsWithExactKeysAndAnEmptyVersionStaysDistinct) {
    const auto body = encode(summary());
    ASSERT_TRUE(body);
    EXPECT_EQ(textOf(*body), kSummaryText);
    EXPECT_EQ(decode<RelayItemSummary>(*body), summary());

    auto b = summary();
    b.metadataVersion = Bytes{};
    const auto withEmpty = encode(b);
    ASSERT_TRUE(withEmpty);
    EXPECT_NE(textOf(*withEmpty).find(R"("metadataVersion":"")"), std::string::npos);
    EXPECT_EQ(decode<RelayItemSummary>(*withEmpty), b);
}

TEST(RelaySchema, LookupRequestCodesEverySourceByName) {
    const std::array<std::pair<RelayLookupSource, std::string>, 4> sources = {{
        {RelayLookupSource::fsGetAttributes, "fsGetAttributes"},
        {RelayLookupSource::fsLookupByName, "fsLookupByName"},
        {RelayLookupSource::fsSetAttributesRefresh, "fsSetAttributesRefresh"},
        {RelayLookupSource::fsSetAttributesAfterTruncate, "fsSetAttributesAfterTruncate"},
    }};
    for (const auto& [source, name] : sources) {
        const RelayLookupRequest request{"a/b", source};
        const auto body = encode(request);
        ASSERT_TRUE(body);
        EXPECT_EQ(textOf(*body), R"({"identifier":"a/b","source":")" + name + R"("})");
        EXPECT_EQ(decode<RelayLookupRequest>(*body), request);
    }
    for (const char* text :
         {R"({"identifier":"a","source":"fsgetattributes"})",
          R"({"identifier":"a","source":"fsRead"})", R"({"identifier":"a","source":0})",
          R"({"identifier":"a"})", R"({"source":"fsLookupByName"})"}) {
        EXPECT_FALSE(decode<RelayLookupRequest>(bytesOf(text))) << text;
    }
}

// The generic strictness is the JSON helpers'; these are the field types of this record.
TEST(RelaySchema, ItemSummaryFieldsKeepTheirTypesAndCodesTheirRange) {
    const auto good = skiff::json::toJson(summary());
    const std::vector<std::pair<const char*, Json>> bad = {
        {"size", -1},
        {"mode", 4294967296ULL},
        {"accessTime", Json::parse(R"({"tvSec":0,"tvNsec":2147483648})")},
        {"contentVersion", "not base64"},
    };
    for (const auto& [key, value] : bad) {
        auto j = good;
        j[key] = value;
        EXPECT_FALSE(decode<RelayItemSummary>(bytesOf(j.dump()))) << j.dump();
    }
    using skiff::json::enumFromRaw;
    EXPECT_EQ(enumFromRaw<UsbMuxRelayError>(12), UsbMuxRelayError::internalError);
    EXPECT_FALSE(enumFromRaw<UsbMuxRelayError>(13));
    EXPECT_EQ(enumFromRaw<RelayDeviceStatus>(9), RelayDeviceStatus::noSpace);
    EXPECT_FALSE(enumFromRaw<RelayDeviceStatus>(10));
    EXPECT_FALSE(enumFromRaw<UsbMuxRelaySelector>(21));
}

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
