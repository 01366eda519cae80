#include "common/json.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "common/base64.hpp"
#include "common/byte_text.hpp"
#include "common/uuid.hpp"

namespace probe {

using skiff::json::Bytes;
using skiff::json::Json;

enum class Colour { red, green };
std::span<const std::string_view> textNames(Colour) {
    static constexpr std::array<std::string_view, 2> kNames{"red", "green"};
    return kNames;
}

enum class Level : std::int64_t { low, mid, high };
constexpr std::size_t caseCount(Level) {
    return 3;
}

struct Point {
    std::int8_t x = 0;
    std::uint16_t y = 0;
    friend bool operator==(const Point&, const Point&) = default;
};
constexpr auto jsonFields(const Point*) {
    return std::tuple{skiff::json::field("x", &Point::x), skiff::json::field("y", &Point::y)};
}

// One field of every kind the helpers know, declared out of alphabetical order.
struct Sample {
    std::string name;
    skiff::Uuid id;
    Bytes blob;
    bool on = false;
    double ratio = 0;
    Colour colour = Colour::red;
    Level level = Level::low;
    std::vector<Point> points;
    std::optional<Point> origin;
    std::optional<Bytes> extra;
    friend bool operator==(const Sample&, const Sample&) = default;
};
constexpr auto jsonFields(const Sample*) {
    using skiff::json::field;
    return std::tuple{field("name", &Sample::name),     field("id", &Sample::id),
                      field("blob", &Sample::blob),     field("on", &Sample::on),
                      field("ratio", &Sample::ratio),   field("colour", &Sample::colour),
                      field("level", &Sample::level),   field("points", &Sample::points),
                      field("origin", &Sample::origin), field("extra", &Sample::extra)};
}

}  // namespace probe

namespace {

using skiff::Uuid;
using skiff::json::Bytes;
using skiff::testing::bytesOf;
using skiff::testing::textOf;

probe::Sample sample() {
    probe::Sample s;
    s.name = "zeta";
    s.id = *Uuid::parse("e621e1f8-c36c-495a-93fc-0c247a3e6e5f");
    s.blob = {0xFB, 0xFF, 0x00};
    s.on = true;
    s.ratio = 0.5;
    s.colour = probe::Colour::green;
    s.level = probe::Level::high;
    s.points = {{-128, 65535}, {127, 0}};
    return s;
}

TEST(JsonCoding, RecordEncodesKeysInDeclarationOrderAndRoundTripsOrYieldsNothing) {
    auto s = sample();
    const auto body = skiff::json::encode(s);
    ASSERT_TRUE(body);
    EXPECT_EQ(textOf(*body),
              R"({"name":"zeta","id":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F","blob":"+/8A",)"
              R"("on":true,"ratio":0.5,"colour":"green","level":2,)"
              R"("points":[{"x":-128,"y":65535},{"x":127,"y":0}]})");
    EXPECT_EQ(skiff::json::decode<probe::Sample>(*body), s);

    s.origin = probe::Point{1, 2};
    s.extra = Bytes{};
    const auto withOptionals = skiff::json::encode(s);
    ASSERT_TRUE(withOptionals);
    EXPECT_NE(textOf(*withOptionals).find(R"("origin":{"x":1,"y":2},"extra":"")"),
              std::string::npos);
    EXPECT_EQ(skiff::json::decode<probe::Sample>(*withOptionals), s);

    // What JSON cannot carry yields no body at all.
    s.ratio = std::nan("");
    EXPECT_FALSE(skiff::json::encode(s));
    s = sample();
    s.name = "\xc3";  // truncated UTF-8
    EXPECT_FALSE(skiff::json::encode(s));
}

TEST(JsonCoding, DecodingIgnoresKeyOrderUnknownKeysAndNullOptionals) {
    const auto decoded = skiff::json::decode<probe::Sample>(
        bytesOf(R"({"extra":null,"points":[],"level":0,"colour":"red","ratio":3,"on":false,)"
                R"("blob":"","id":"e621e1f8-c36c-495a-93fc-0c247a3e6e5f","name":"","later":[1]})"));
    ASSERT_TRUE(decoded);
    EXPECT_FALSE(decoded->extra);
    EXPECT_EQ(decoded->ratio, 3.0);
    EXPECT_EQ(decoded->id.text(), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
}

TEST(JsonCoding, StrictDecodingRejectsBadFieldsWithoutThrowing) {
    const auto good = skiff::json::toJson(sample());
    const std::vector<std::pair<const char*, skiff::json::Json>> bad = {
        {"name", 5},
        {"id", "E621E1F8C36C495A93FC0C247A3E6E5F"},
        {"blob", "+/8"},
        {"on", 1},
        {"ratio", "0.5"},
        {"colour", "Green"},
        {"level", 3},
        {"level", -1},
        {"level", "high"},
        {"points", skiff::json::Json::parse(R"([{"x":128,"y":0}])")},
        {"points", skiff::json::Json::parse(R"([{"x":-129,"y":0}])")},
        {"points", skiff::json::Json::parse(R"([{"x":0,"y":-1}])")},
        {"points", skiff::json::Json::parse(R"([{"x":0,"y":1.0}])")},
        {"points", skiff::json::Json::parse(R"([{"x":0}])")},
        {"points", skiff::json::Json::parse(R"({"x":0,"y":0})")},
        {"origin", "{}"},
        {"extra", 7},
    };
    for (const auto& [key, value] : bad) {
        auto j = good;
        j[key] = value;
        const auto text = j.dump();
        EXPECT_FALSE(skiff::json::decode<probe::Sample>(bytesOf(text))) << text;
    }
    auto missing = good;
    missing.erase("name");
    EXPECT_FALSE(skiff::json::decode<probe::Sample>(bytesOf(missing.dump())));

    for (const char* text : {"", "[]", "null", "{", R"({"name":"a"} trailing)", "\xff"}) {
        EXPECT_FALSE(skiff::json::decode<probe::Point>(bytesOf(text))) << text;
    }
}

TEST(Base64, EncodesWithPaddingAndDecodesStrictly) {
    const std::vector<std::pair<std::string, std::string>> known = {
        {"", ""},        {"f", "Zg=="},        {"fo", "Zm8="},
        {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"\xfb\xff\xbf", "+/+/"},
    };
    for (const auto& [plain, encoded] : known) {
        EXPECT_EQ(skiff::base64::encode(bytesOf(plain)), encoded);
        EXPECT_EQ(skiff::base64::decode(encoded), bytesOf(plain)) << encoded;
    }
    for (const char* text : {"Zg", "Zg=", "Zh==", "Zm9=", "Z===", "====", "Zg==Zg==", "Zm9v\n",
                             "Zm-v", "Zm_v", " Zm9v"}) {
        EXPECT_FALSE(skiff::base64::decode(text)) << text;
    }
    Bytes all(256);
    for (int i = 0; i < 256; ++i) {
        all[i] = static_cast<std::uint8_t>(i);
    }
    EXPECT_EQ(skiff::base64::decode(skiff::base64::encode(all)), all);
}

TEST(UuidText, ParsesEitherCaseAndWritesUpperCase) {
    const auto lower = Uuid::parse("0f8fad5b-d9cb-469f-a165-70867728950e");
    const auto upper = Uuid::parse("0F8FAD5B-D9CB-469F-A165-70867728950E");
    ASSERT_TRUE(lower);
    EXPECT_EQ(lower, upper);
    EXPECT_EQ(lower->text(), "0F8FAD5B-D9CB-469F-A165-70867728950E");
    EXPECT_EQ(lower->bytes()[0], 0x0F);
    EXPECT_EQ(lower->bytes()[15], 0x0E);

    for (std::string text :
         {"0f8fad5bd9cb469fa16570867728950e", "{0f8fad5b-d9cb-469f-a165-70867728950e}",
          "0f8fad5b-d9cb-469f-a165-70867728950", "0f8fad5b-d9cb-469f-a165-70867728950g",
          "0f8fad5b+d9cb-469f-a165-70867728950e", ""}) {
        EXPECT_FALSE(Uuid::parse(text)) << text;
    }
    std::string withNul = "0f8fad5b-d9cb-469f-a165-70867728950e";
    withNul[35] = '\0';
    EXPECT_FALSE(Uuid::parse(withNul));

    const auto a = Uuid::random();
    EXPECT_FALSE(a.isNil());
    EXPECT_NE(a, Uuid::random());
    EXPECT_EQ(Uuid::parse(a.text()), a);
}

}  // namespace
