#pragma once
// The update feed: an RSS-shaped XML document, a channel holding items, each item one
// release. ItemParserDelegate takes the parser's element and text events and keeps the
// channel's title and the first item's release facts; parseUpdateFeed runs expat over a
// feed's bytes and drives a delegate. A delegate serves one parse on one thread.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <variant>

#include "common/json.hpp"

namespace skiff::service {

// What the feed says about its first release. Every fact is absent until the feed gives it;
// the braces let callers name only the facts they set.
struct UpdateFeedItem {
    std::optional<std::string> channelTitle{};
    std::optional<std::string> itemTitle{};
    std::optional<std::string> shortVersion{};
    std::optional<std::string> build{};
    std::optional<std::string> pubDate{};
    std::optional<std::string> minimumSystemVersion{};
    std::optional<std::string> hardwareRequirements{};
    std::optional<std::string> enclosureURL{};
    std::optional<std::int64_t> enclosureLength{};
    bool operator==(const UpdateFeedItem&) const = default;
};
constexpr auto jsonFields(const UpdateFeedItem*) {
    using T = UpdateFeedItem;
    return std::tuple{json::field("channelTitle", &T::channelTitle),
                      json::field("itemTitle", &T::itemTitle),
                      json::field("shortVersion", &T::shortVersion),
                      json::field("build", &T::build),
                      json::field("pubDate", &T::pubDate),
                      json::field("minimumSystemVersion", &T::minimumSystemVersion),
                      json::field("hardwareRequirements", &T::hardwareRequirements),
                      json::field("enclosureURL", &T::enclosureURL),
                      json::field("enclosureLength", &T::enclosureLength)};
}

class ItemParserDelegate {
public:
    using Attributes = std::map<std::string, std::string, std::less<>>;

    // Text beyond this much in one element is dropped, so a hostile feed cannot make the
    // delegate hold (or keep copying) an unbounded string.
    static constexpr std::size_t kMaxElementText = 64 * 1024;

    // `qualifiedName` is used when not empty, else `name`; either may carry a prefix.
    void didStartElement(std::string_view name, std::string_view qualifiedName,
                         const Attributes& attributes);
    void foundCharacters(std::string_view text);
    void didEndElement(std::string_view name, std::string_view qualifiedName);

    const UpdateFeedItem& item() const { return item_; }
    bool inChannel() const { return inChannel_; }
    bool inItem() const { return inItem_; }
    bool finishedFirstItem() const { return finishedFirstItem_; }
    const std::optional<std::string>& currentElement() const { return currentElement_; }
    const std::string& currentText() const { return currentText_; }

private:
    bool isTracked(std::string_view local) const;
    void takeEnclosure(const Attributes& attributes);
    void store(std::string_view local, std::string text);

    UpdateFeedItem item_;
    bool inChannel_ = false;
    bool inItem_ = false;
    bool finishedFirstItem_ = false;
    std::optional<std::string> currentElement_;
    std::string currentText_;
};

// Digits only (no sign, space or fraction) and within 64 bits: how a feed writes a length
// or a build number.
std::optional<std::int64_t> wholeNumber(std::string_view text);

// Parses a whole feed. The delegate as the last event left it, or, for bytes that are not
// well-formed XML, expat's reason with the line and column where it stopped. External
// entities are never loaded.
std::variant<ItemParserDelegate, std::string> parseUpdateFeed(std::span<const std::uint8_t> feed);

}  // namespace skiff::service
