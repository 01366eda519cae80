// skiffctl update-check without a service: which feeds can be checked, and what is printed
// for a feed's release against a given service build.
#include "ctl/update_check.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace skiff::ctl {
namespace {

std::variant<FeedRelease, std::string> release(std::string_view xml) {
    return firstRelease(std::span(reinterpret_cast<const std::uint8_t*>(xml.data()), xml.size()));
}

std::string feedWithItem(std::string_view item) {
    return "<rss><channel><title>Skiff</title><item>" + std::string(item) +
           "</item></channel></rss>";
}

TEST(UpdateCheck, FeedsThatCannotBeCheckedSayWhy) {
    const std::vector<std::pair<std::string, const char*>> cases = {
        {"<rss><channel>", "not a well-formed feed (line 1, column 15: no element found)"},
        {"<rss><channel><title>Skiff</title></channel></rss>", "no item"},
        {feedWithItem("<title>Skiff 2</title>"), "no build number"},
        {feedWithItem("<version>2.1</version>"), "build \"2.1\", which is not a whole number"},
    };
    for (const auto& [xml, reason] : cases) {
        SCOPED_TRACE(xml);
        const auto result = release(xml);
        ASSERT_TRUE(std::holds_alternative<std::string>(result));
        EXPECT_NE(std::get<std::string>(result).find(reason), std::string::npos)
            << std::get<std::string>(result);
    }
}

TEST(UpdateCheck, OnlyAGreaterFeedBuildIsAnUpdate) {
    const auto parsed =
        release(feedWithItem("<title>Skiff 2.1</title><version> 42 </version>"
                             "<enclosure url=\"https://example.test/a.tar.gz\" length=\"1234\"/>"));
    ASSERT_TRUE(std::holds_alternative<FeedRelease>(parsed));
    const auto& feed = std::get<FeedRelease>(parsed);

    struct Case {
        std::optional<std::int64_t> serviceBuild;
        const char* verdict;
        const char* status;
    };
    for (const auto& c :
         std::vector<Case>{{41, "build 42 available (the service is build 41)\n", "available"},
                           {42, "up to date (the service is build 42)\n", "up to date"},
                           {100, "up to date (the service is build 100)\n", "up to date"},
                           {{}, "could not compare: skiffd did not answer\n", "unknown"}}) {
        SCOPED_TRACE(c.serviceBuild.value_or(-1));
        const auto text = describeUpdateCheck(feed, c.serviceBuild, Output{});
        EXPECT_TRUE(text.ends_with(c.verdict)) << text;
        const auto document = json::Json::parse(describeUpdateCheck(feed, c.serviceBuild, {true}));
        EXPECT_EQ(document["status"], c.status);
    }
    // Facts the feed leaves out are left out.
    EXPECT_EQ(describeUpdateCheck(feed, 7, Output{.json = true}),
              R"({"channelTitle":"Skiff","itemTitle":"Skiff 2.1","build":"42",)"
              R"("enclosureURL":"https://example.test/a.tar.gz","enclosureLength":1234,)"
              R"("serviceBuild":7,"status":"available"})"
              "\n");
}

}  // namespace
}  // namespace skiff::ctl
