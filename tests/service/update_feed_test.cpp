// The update feed parser: which elements of a feed end up as the first release's facts, and
// that hostile or broken feeds become errors rather than crashes, hangs or file reads.
#include "service/update_feed.hpp"

#include <gtest/gtest.h>

#include <chrono>
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

TEST(UpdateFeed, FactsComeFromTheFirstItemOfTheChannel) {
    struct Case {
        const char* what;
        std::string xml;
        UpdateFeedItem expected;
    };
    const std::vector<Case> cases = {
        {"every fact, trimmed of spaces and line breaks",
         "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" +
             channel("<title>\n  Skiff  \n</title>"
                     "<item><title>Skiff 2.1</title>"
                     "<pubDate>\tTue, 05 Mar 2024 10:00:00 +0000\r\n</pubDate>"
                     "<version> 421 </version><shortVersionString>2.1</shortVersionString>"
                     "<minimumSystemVersion>12</minimumSystemVersion>"
                     "<hardwareRequirements>x86_64</hardwareRequirements>"
                     "<enclosure url=\"https://example.test/skiff-2.1.tar.gz\" length=\"1234\"/>"
                     "</item>"),
         {.channelTitle = "Skiff",
          .itemTitle = "Skiff 2.1",
          .shortVersion = "2.1",
          .build = "421",
          .pubDate = "Tue, 05 Mar 2024 10:00:00 +0000",
          .minimumSystemVersion = "12",
          .hardwareRequirements = "x86_64",
          .enclosureURL = "https://example.test/skiff-2.1.tar.gz",
          .enclosureLength = 1234}},
        {"a second item never replaces or adds to the first",
         channel("<item><title>new</title><version>2</version></item>"
                 "<item><title>old</title><version>1</version><pubDate>then</pubDate>"
                 "<enclosure url=\"old\"/></item>"),
         {.itemTitle = "new", .build = "2"}},
        {"a channel title after the first item is too late",
         channel("<item><title>first</title></item><title>late</title>"),
         {.itemTitle = "first"}},
        {"prefixed names count by the part after the colon",
         "<rss xmlns:u=\"urn:u\"><u:channel><u:title>C</u:title><item><u:version>7</u:version>"
         "<u:shortVersionString>1.7</u:shortVersionString><u:enclosure url=\"e\"/></item>"
         "</u:channel></rss>",
         {.channelTitle = "C", .shortVersion = "1.7", .build = "7", .enclosureURL = "e"}},
        {"names are case-sensitive",
         channel("<item><Title>no</Title><pubdate>no</pubdate><VERSION>no</VERSION>"
                 "<title>yes</title></item>"),
         {.itemTitle = "yes"}},
        {"outside the channel nothing counts, an item there included",
         "<rss><title>no</title><item><title>no</title><version>9</version>"
         "<enclosure url=\"no\" length=\"1\"/></item><channel></channel></rss>",
         {}},
        {"inside the channel but outside an item only the title counts",
         channel("<title>C</title><version>9</version><pubDate>no</pubDate>"
                 "<enclosure url=\"no\"/><item><title>I</title></item>"),
         {.channelTitle = "C", .itemTitle = "I"}},
        {"the first enclosure wins",
         channel("<item><enclosure url=\"a\" length=\"1\"/><enclosure url=\"b\" length=\"2\"/>"
                 "</item>"),
         {.enclosureURL = "a", .enclosureLength = 1}},
        {"entities, character references and CDATA are text",
         channel("<item><title>A &amp; B&#x21; <![CDATA[<C>]]></title></item>"),
         {.itemTitle = "A & B! <C>"}},
        {"markup inside a fact keeps its text",
         channel("<item><title>Skiff <b>2</b></title></item>"),
         {.itemTitle = "Skiff 2"}},
        {"a blank fact is present and empty",
         channel("<item><version>\n  </version></item>"),
         {.build = ""}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(facts(c.xml), c.expected);
    }
}

TEST(UpdateFeed, EnclosureLengthIsTakenOnlyAsAWholeNumber) {
    struct Case {
        const char* attributes;
        std::optional<std::int64_t> length;
    };
    const std::vector<Case> cases = {
        {"length=\"0\"", 0},
        {"length=\"9223372036854775807\"", INT64_MAX},
        {"length=\"9223372036854775808\"", std::nullopt},
        {"length=\"\"", std::nullopt},
        {"length=\"-5\"", std::nullopt},
        {"length=\"+5\"", std::nullopt},
        {"length=\" 5\"", std::nullopt},
        {"length=\"1.5\"", std::nullopt},
        {"length=\"12MB\"", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.attributes);
        const auto item =
            facts(channel(std::string("<item><enclosure url=\"u\" ") + c.attributes + "/></item>"));
        EXPECT_EQ(item.enclosureURL, "u");
        EXPECT_EQ(item.enclosureLength, c.length);
    }
}

TEST(UpdateFeed, TheDelegateStopsAfterTheFirstItem) {
    ItemParserDelegate delegate;
    delegate.didStartElement("channel", "", {});
    delegate.didStartElement("item", "", {});
    EXPECT_TRUE(delegate.inChannel());
    EXPECT_TRUE(delegate.inItem());
    // A qualified name, when given, is the one that counts.
    delegate.didStartElement("ignored", "x:title", {});
    EXPECT_EQ(delegate.currentElement(), "title");
    delegate.foundCharacters(" one");
    delegate.foundCharacters(" two ");
    EXPECT_EQ(delegate.currentText(), " one two ");
    delegate.didEndElement("ignored", "x:title");
    EXPECT_EQ(delegate.currentElement(), std::nullopt);
    EXPECT_EQ(delegate.currentText(), "");
    delegate.foundCharacters("dropped");
    EXPECT_EQ(delegate.currentText(), "");
    delegate.didEndElement("item", "");
    EXPECT_FALSE(delegate.inItem());
    EXPECT_TRUE(delegate.finishedFirstItem());

    delegate.didStartElement("item", "", {});
    delegate.didStartElement("title", "", {});
    delegate.foundCharacters("second");
    delegate.didEndElement("title", "");
    EXPECT_FALSE(delegate.inItem());
    EXPECT_EQ(delegate.item(), UpdateFeedItem{.itemTitle = "one two"});
}

TEST(UpdateFeed, MalformedFeedIsAnErrorNotACrash) {
    struct Case {
        const char* what;
        std::string xml;
        const char* errorStart;  // where expat stopped and why, or just a prefix of it
    };
    const std::vector<Case> cases = {
        {"empty", "", "line 1, column 1: no element found"},
        {"not XML", "skiff 2.1", "line 1, column 1: syntax error"},
        {"cut short", "<rss><channel><item>", "line 1, column 21: no element found"},
        {"mismatched tags", "<rss>\n<channel></item>", "line 2, column 12: mismatched tag"},
        {"undefined entity", "<rss>&nope;</rss>", "line 1, column 6: undefined entity"},
        {"invalid UTF-8", "<rss><title>\xff</title></rss>", "line 1, column 13: not well-formed"},
        {"a NUL byte", std::string("<rss>\0</rss>", 12), "line 1, column 6: not well-formed"},
        {"two roots", "<rss/><rss/>", "line 1, column 7: junk after document element"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const auto result = parse(c.xml);
        ASSERT_TRUE(std::holds_alternative<std::string>(result));
        EXPECT_EQ(std::get<std::string>(result).rfind(c.errorStart, 0), 0u)
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
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(std::holds_alternative<std::string>(parse(laughs)));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));

    // An external entity is never read, whatever it names.
    const auto external = facts("<!DOCTYPE rss [<!ENTITY x SYSTEM \"file:///etc/passwd\">]>" +
                                channel("<item><title>[&x;]</title></item>"));
    EXPECT_EQ(external.itemTitle, "[]");

    // One element's text is kept up to a limit, cut between whole UTF-8 characters.
    const std::string euro = "\xe2\x82\xac";
    std::string huge;
    for (std::size_t i = 0; i < ItemParserDelegate::kMaxElementText; ++i) {
        huge += euro;
    }
    const auto capped = facts(channel("<item><title>" + huge + "</title></item>"));
    ASSERT_TRUE(capped.itemTitle.has_value());
    EXPECT_LE(capped.itemTitle->size(), ItemParserDelegate::kMaxElementText);
    EXPECT_GT(capped.itemTitle->size(), ItemParserDelegate::kMaxElementText - euro.size());
    EXPECT_EQ(capped.itemTitle->size() % euro.size(), 0u);
    EXPECT_EQ(capped.itemTitle->substr(capped.itemTitle->size() - euro.size()), euro);
}

}  // namespace
}  // namespace skiff::service
