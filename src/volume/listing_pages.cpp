#include "volume/listing_pages.hpp"

#include <algorithm>
#include <string_view>
#include <utility>

#include "common/json.hpp"
#include "common/log.hpp"
#include "relay/item_requests.hpp"

namespace skiff::volume {

namespace {

constexpr std::size_t kMaxNameBytes = 255;

// Whether the app's name can be a file name here: one component, UTF-8, within NAME_MAX.
bool isFileName(const std::string& name) {
    return relay::isItemName(name) && name.size() <= kMaxNameBytes &&
           json::serialize(json::Json(name)).has_value();
}

// The folder an identifier names an item of; the root is its own.
std::string_view folderOf(std::string_view identifier) {
    const auto slash = identifier.rfind('/');
    return slash == std::string_view::npos ? std::string_view{} : identifier.substr(0, slash);
}

// The length of the UTF-8 sequence `rest` starts with, or 0 when it starts with none.
std::size_t sequenceLength(std::span<const std::uint8_t> rest) {
    const auto lead = rest[0];
    if (lead < 0x80) {
        return 1;
    }
    std::size_t length = 0;
    // The second byte's range narrows for leads that would give overlong forms, surrogates
    // or code points past U+10FFFF.
    std::uint8_t low = 0x80;
    std::uint8_t high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        low = lead == 0xE0 ? 0xA0 : low;
        high = lead == 0xED ? 0x9F : high;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        low = lead == 0xF0 ? 0x90 : low;
        high = lead == 0xF4 ? 0x8F : high;
    } else {
        return 0;
    }
    if (rest.size() < length || rest[1] < low || rest[1] > high) {
        return 0;
    }
    for (std::size_t i = 2; i < length; ++i) {
        if (rest[i] < 0x80 || rest[i] > 0xBF) {
            return 0;
        }
    }
    return length;
}

}  // namespace

Bytes escapeStrayBytes(std::span<const std::uint8_t> page) {
    constexpr std::string_view kNul = "\\u0000";
    Bytes out;
    out.reserve(page.size());
    bool inString = false;
    bool escaped = false;
    for (std::size_t at = 0; at < page.size();) {
        const auto byte = page[at];
        const auto length = sequenceLength(page.subspan(at));
        if (length == 0 && inString && !escaped) {
            out.insert(out.end(), kNul.begin(), kNul.end());
            ++at;
            continue;
        }
        if (escaped) {
            escaped = false;
        } else if (inString && byte == '\\') {
            escaped = true;
        } else if (byte == '"') {
            inString = !inString;
        }
        const auto taken = std::max<std::size_t>(length, 1);
        out.insert(out.end(), page.begin() + at, page.begin() + at + taken);
        at += taken;
    }
    return out;
}

ListingPages::ListingPages(std::string folder, std::chrono::steady_clock::time_point deadline)
    : folder_(std::move(folder)), deadline_(deadline) {}

int ListingPages::add(std::span<const std::uint8_t> body, std::optional<std::string>& nextCursor) {
    bytes_ += body.size();
    if (++pages_ > kListPageLimit || bytes_ > kListByteLimit ||
        std::chrono::steady_clock::now() > deadline_) {
        log::xpc().error(
            "skiff-fs gives up listing \"%{public}s\": %{public}zu pages, %{public}zu bytes",
            folder_.c_str(), pages_, bytes_);
        return EIO;
    }
    // A name that is not UTF-8 costs its entry only, not the page.
    auto page = json::decode<relay::RelayListReply>(escapeStrayBytes(body));
    // A cursor that does not move would page forever.
    if (!page || (page->nextCursor && page->nextCursor == cursor_)) {
        return EIO;
    }
    for (auto& item : page->items) {
        if (!isFileName(item.filename)) {
            log::xpc().error(
                "skiff-fs leaves out an item of \"%{public}s\" whose name cannot be "
                "a file name here",
                folder_.c_str());
            continue;
        }
        if (folderOf(item.identifier) != folder_ || item.identifier.empty()) {
            log::xpc().error(
                "skiff-fs refuses a listing of \"%{public}s\" with an item of "
                "another folder",
                folder_.c_str());
            return EIO;
        }
        // The entry is filed where it was found, whatever it claims to be.
        item.identifier = folder_.empty() ? item.filename : folder_ + "/" + item.filename;
        if (!names_.insert(item.filename).second) {
            continue;
        }
        if (items_.size() >= kListItemLimit) {
            log::xpc().error("skiff-fs gives up listing \"%{public}s\": over %{public}zu items",
                             folder_.c_str(), kListItemLimit);
            return EIO;
        }
        items_.push_back(std::move(item));
    }
    cursor_ = page->nextCursor;
    nextCursor = std::move(page->nextCursor);
    return 0;
}

}  // namespace skiff::volume
