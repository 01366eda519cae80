// The update feed parser: which elements of a feed end up as the first release's facts, and
// that hostile or broken feeds become errors rather than crashes, hangs or file reads.
#include "service/update_feed.hpp"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

namespace skiff::service {

void PrintTo(const UpdateFeedItem& item, std::ostream* os) {
    *os << json::toJson(item).dump();
}

namespace {

std::variant<ItemParserDelegate, std::string> parse(std::string_view xml) {
    return parseUpdateFeed(
        std::span(reinterpret_cast<const std::uint8_t*>(xml.data()), xml.size()));
}

// The facts of a feed that must parse.
UpdateFeedItem facts(std::string_view xml) {
    auto result = parse(xml);
    if (const auto* error = std::get_if<std::string>(&result)) {
        ADD_FAILURE() << "unexpected parse error: " << *error;
        return {};
    }
    return std::get<ItemParserDelegate>(result).item();
}

std::string channel(std::string_view body) {
    return "<rss><channel>" + std::string(body) + "</channel></rss>";
}

TEST(UpdateFeed, OnlyTheFirstItemOfTheChannelCounts) {
    struct Case {
        const char* what;
        std::string xml;
        UpdateFeedItem expected;
    };
    const std::vector<Case> cases = {
        {"every fact, trimmed of spaces and line breaks",
         "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" +
             channel("<title>\n  Skiff  \n</title><item><title>Skiff 2.1</title>"
                     "<pubDate>\tTue, 05 Mar 2024\r\n</pubDate><version> 421 </version>"
                     "<shortVersionString>2.1</shortVersionString>"
                     "<minimumSystemVersion>12</minimumSystemVersion>"
                     "<hardwareRequirements>x86_64</hardwareRequirements>"
                     "<enclosure url=\"https://example.test/a.tar.gz\" length=\"1234\"/>"
                     "<enclosure url=\"second\" length=\"5\"/></item>"),
         {.channelTitle = "Skiff",
          .itemTitle = "Skiff 2.1",
          .shortVersion = "2.1",
          .build = "421",
          .pubDate = "Tue, 05 Mar 2024",
          .minimumSystemVersion = "12",
          .hardwareRequirements = "x86_64",
          .enclosureURL = "https://example.test/a.tar.gz",
          .enclosureLength = 1234}},
        {"a second item, or a channel title after the first, changes nothing",
         channel("<item><title>new</title><version>2</version></item><title>late</title>"
                 "<item><title>old</title><pubDate>then</pubDate><enclosure url=\"old\"/></item>"),
         {.itemTitle = "new", .build = "2"}},
        {"prefixed names count by the part after the colon",
         "<rss xmlns:u=\"urn:u\"><u:channel><u:title>C</u:title><item><u:version>7</u:version>"
         "<u:enclosure url=\"e\"/></item></u:channel></rss>",
         {.channelTitle = "C", .build = "7", .enclosureURL = "e"}},
        {"names are case-sensitive",
         channel("<item><Title>no</Title><pubdate>no</pubdate><title>yes</title></item>"),
         {.itemTitle = "yes"}},
        {"outside the channel nothing counts, an item there included",
         "<rss><title>no</title><item><title>no</title><enclosure url=\"no\"/></item>"
         "<channel></channel></rss>",
         {}},
        {"an enclosure length is taken only as a whole number",
         channel("<item><enclosure url=\"u\" length=\"9223372036854775807\"/></item>"),
         {.enclosureURL = "u", .enclosureLength = INT64_MAX}},
        {"one past the largest, negative or fractional lengths are none",
         channel("<item><enclosure url=\"u\" length=\"9223372036854775808\"/></item>"
                 "<item><enclosure length=\"-5\"/></item>"),
         {.enclosureURL = "u"}},
        {"outside an item only the channel's title counts",
         channel("<title>C</title><version>9</version><enclosure url=\"no\"/><item/>"),
         {.channelTitle = "C"}},
        {"entities, CDATA and nested markup are text; a blank fact is empty",
         channel("<item><title>A &amp; <b>B</b><![CDATA[<C>]]></title><version> </version>"
                 "</item>"),
         {.itemTitle = "A & B<C>", .build = ""}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(facts(c.xml), c.expected);
    }
}

TEST(UpdateFeed, MalformedFeedIsAnErrorNotACrash) {
    const std::vector<std::pair<std::string, const char*>> cases = {
        {"", "line 1, column 1: no element found"},
        {"<rss><channel><item>", "line 1, column 21: no element found"},
        {"<rss>\n<channel></item>", "line 2, column 12: mismatched tag"},
        {"<rss>&nope;</rss>", "line 1, column 6: undefined entity"},
        {"<rss><title>\xff</title></rss>", "line 1, column 13: not well-formed"},
        {std::string("<rss>\0</rss>", 12), "line 1, column 6: not well-formed"},
    };
    for (const auto& [xml, error] : cases) {
        SCOPED_TRACE(error);
        const auto result = parse(xml);
        ASSERT_TRUE(std::holds_alternative<std::string>(result));
        // Where expat stopped is ours to report; its wording after that is its own.
        EXPECT_TRUE(std::get<std::string>(result).starts_with(error))
            << std::get<std::string>(result);
    }
}

TEST(UpdateFeed, HostileFeedsAreBounded) {
    // Nested entities that would expand to gigabytes of text.
    std::string laughs = "<!DOCTYPE rss [<!ENTITY l0 \"lollollollollollollollollollol\">";
    for (int i = 1; i < 10; ++i) {
        laughs += "<!ENTITY l" + std::to_string(i) + " \"";
        for (int j = 0; j < 10; ++j) {
            laughs += "&l" + std::to_string(i - 1) + ";";
        }
        laughs += "\">";
    }
    laughs += "]>" + channel("<item><title>&l9;</title></item>");
    EXPECT_TRUE(std::holds_alternative<std::string>(parse(laughs)));

    // An external entity is never read, whatever it names.
    EXPECT_EQ(facts("<!DOCTYPE rss [<!ENTITY x SYSTEM \"file:///etc/passwd\">]>" +
                    channel("<item><title>[&x;]</title></item>"))
                  .itemTitle,
              "[]");

    // One element's text is kept up to a limit, cut between whole UTF-8 characters.
    const std::string euro = "\xe2\x82\xac";
    std::string huge;
    for (std::size_t i = 0; i < ItemParserDelegate::kMaxElementText; ++i) {
        huge += euro;
    }
    const auto title = facts(channel("<item><title>" + huge + "</title></item>")).itemTitle;
    ASSERT_TRUE(title.has_value());
    EXPECT_EQ(title->size(), ItemParserDelegate::kMaxElementText / 3 * 3);
    EXPECT_EQ(*title, huge.substr(0, title->size()));
}

}  // namespace
}  // namespace skiff::service
