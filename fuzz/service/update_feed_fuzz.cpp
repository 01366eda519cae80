// Update feeds come from the network: any bytes must either be refused with a reason or
// give facts that are trimmed, bounded, valid UTF-8 (so they print as JSON) and a
// non-negative length. Anything else aborts.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <variant>

#include "common/json.hpp"
#include "service/update_feed.hpp"

namespace {

using skiff::service::ItemParserDelegate;
using skiff::service::UpdateFeedItem;

void check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

void checkText(const std::optional<std::string>& text) {
    if (!text) {
        return;
    }
    check(text->size() <= ItemParserDelegate::kMaxElementText);
    if (!text->empty()) {
        constexpr std::string_view kSpace = " \t\n\r\v\f";
        check(kSpace.find(text->front()) == std::string_view::npos);
        check(kSpace.find(text->back()) == std::string_view::npos);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto result = skiff::service::parseUpdateFeed(std::span(data, size));
    if (const auto* error = std::get_if<std::string>(&result)) {
        check(!error->empty());
        return 0;
    }
    const auto& delegate = std::get<ItemParserDelegate>(result);
    check(!(delegate.finishedFirstItem() && delegate.inItem()));
    const auto& item = delegate.item();
    for (const auto* text :
         {&item.channelTitle, &item.itemTitle, &item.shortVersion, &item.build, &item.pubDate,
          &item.minimumSystemVersion, &item.hardwareRequirements}) {
        checkText(*text);
    }
    check(!item.enclosureLength || *item.enclosureLength >= 0);
    const auto encoded = skiff::json::encode(item);
    check(encoded && skiff::json::decode<UpdateFeedItem>(*encoded) == item);
    return 0;
}
