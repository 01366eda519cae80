#pragma once
// `skiffctl update-check`: the first release an update feed announces, and whether it is
// newer than the running service's build.

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <variant>

#include "ctl/commands.hpp"
#include "service/update_feed.hpp"

namespace skiff::ctl {

// A feed's first release, with its build as the number the service's is compared with.
struct FeedRelease {
    service::UpdateFeedItem facts;
    std::int64_t build = 0;
};

// The first release of a feed's bytes, or in plain words why the feed cannot be checked:
// not well-formed XML, no item, or a build that is missing or not a whole number.
std::variant<FeedRelease, std::string> firstRelease(std::span<const std::uint8_t> feed);

// What update-check prints: the release's facts and the verdict ("up to date" or
// "build N available"), as lines or, with out.json, as one JSON object ending in a newline.
// Without the service's build it says it could not compare.
std::string describeUpdateCheck(const FeedRelease& release,
                                std::optional<std::int64_t> serviceBuild, const Output& out);

// `feedPath` "-" reads standard input; `serviceBuild` is asked only once the feed reads,
// and gives nothing when there is no bus or no skiffd.
int runUpdateCheck(const std::function<std::optional<std::int64_t>()>& serviceBuild,
                   const Output& out, const std::string& feedPath);

}  // namespace skiff::ctl
