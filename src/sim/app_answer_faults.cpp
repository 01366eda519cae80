#include "sim/app_answer_faults.hpp"

#include <algorithm>
#include <string>
#include <string_view>

#include "common/base64.hpp"
#include "relay/item_requests.hpp"

namespace skiff::sim {
namespace {

using Selector = relay::UsbMuxRelaySelector;

// Stands in for the name that is not UTF-8 until the reply is text; JSON cannot carry it.
constexpr std::string_view kNotUtf8Placeholder = "skiff-sim-not-utf8-name";
constexpr std::string_view kNotUtf8Name = "bad\xff\xfe";

// A cursor that sorts before every name: the listing starts over.
std::string restartCursor() {
    return base64::encode(Bytes{0});
}

relay::RelayItemSummary entryNamed(const relay::RelayListReply& reply, const std::string& folder,
                                   const std::string& name) {
    relay::RelayItemSummary entry =
        reply.items.empty() ? relay::RelayItemSummary{} : reply.items.front();
    entry.isDirectory = false;
    entry.mode = 0100644;
    entry.filename = name;
    entry.identifier = folder.empty() ? name : folder + "/" + name;
    return entry;
}

void replaceAll(Bytes& text, std::string_view from, std::string_view to) {
    for (auto at = std::search(text.begin(), text.end(), from.begin(), from.end());
         at != text.end(); at = std::search(at, text.end(), from.begin(), from.end())) {
        at = text.erase(at, at + static_cast<std::ptrdiff_t>(from.size()));
        at = text.insert(at, to.begin(), to.end()) + static_cast<std::ptrdiff_t>(to.size());
    }
}

void distortListing(const AnswerFaults& faults, const Bytes& request,
                    tunnel::TunnelMessage& answer) {
    const auto asked = json::decode<relay::RelayListRequest>(request);
    auto reply = json::decode<relay::RelayListReply>(answer.payload);
    if (!asked || !reply) {
        return;
    }
    const std::string& folder = asked->identifier;
    if (faults.badNames) {
        for (const char* name : {"", ".", "..", "a/b"}) {
            reply->items.push_back(entryNamed(*reply, folder, name));
        }
        reply->items.push_back(entryNamed(*reply, folder, std::string("n\0ul", 4)));
    }
    if (faults.nonUtf8Name) {
        reply->items.push_back(entryNamed(*reply, folder, std::string(kNotUtf8Placeholder)));
    }
    if (faults.foreignEntry) {
        auto entry = entryNamed(*reply, folder == "other" ? "another" : "other", "foreign");
        reply->items.push_back(std::move(entry));
    }
    if (faults.endlessList && !reply->nextCursor) {
        reply->nextCursor = asked->cursor.value_or(restartCursor());
    }
    auto body = json::encode(*reply);
    if (!body) {
        return;
    }
    replaceAll(*body, kNotUtf8Placeholder, kNotUtf8Name);
    answer.payload = std::move(*body);
}

}  // namespace

void distortAnswer(const AnswerFaults& faults, std::uint16_t code, const Bytes& request,
                   tunnel::TunnelMessage& answer) {
    if (answer.code != 0) {
        return;
    }
    const auto selector = static_cast<Selector>(code);
    if (selector == Selector::listDirectory &&
        (faults.badNames || faults.nonUtf8Name || faults.foreignEntry || faults.endlessList)) {
        distortListing(faults, request, answer);
    }
    if (faults.shortChunks &&
        (selector == Selector::readChunk || selector == Selector::readVersionRange)) {
        answer.payload.resize(answer.payload.size() / 2);
    }
}

}  // namespace skiff::sim
