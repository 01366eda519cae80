#pragma once
// Requests on the items of the phone's storage besides the look-up: list, remove, make a
// directory, rename. Each is a JSON body sent with its selector as the frame code; the app
// answers code 0 with the reply below, or a RelayDeviceStatus with an empty body.
//
// An identifier names an item by its path from the storage's root: components joined by
// "/", no leading "/", no empty, "." or ".." component; "" is the root. Every request
// here refuses any other spelling with invalidArgument, so that one item has one name.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "common/json.hpp"
#include "relay/relay_schema.hpp"

namespace skiff::relay {

// A reply to a list request carries at most this many items.
inline constexpr std::size_t kListPageLimit = 1000;

// Whether identifier is spelled as above.
bool isValidItemIdentifier(std::string_view identifier);
// Whether name can be one component of an identifier: not empty, ".", or "..", and no "/"
// or NUL in it. A listing entry with any other name cannot be asked for again.
bool isItemName(std::string_view name);

// listDirectory (3). cursor is the nextCursor of the page before; absent for the first.
struct RelayListRequest {
    std::string identifier;
    std::optional<std::string> cursor;

    friend bool operator==(const RelayListRequest&, const RelayListRequest&) = default;
};
constexpr auto jsonFields(const RelayListRequest*) {
    using T = RelayListRequest;
    return std::tuple{json::field("identifier", &T::identifier), json::field("cursor", &T::cursor)};
}

// The cursor is opaque to the client; its absence means the listing is complete.
struct RelayListReply {
    std::vector<RelayItemSummary> items;
    std::optional<std::string> nextCursor;

    friend bool operator==(const RelayListReply&, const RelayListReply&) = default;
};
constexpr auto jsonFields(const RelayListReply*) {
    using T = RelayListReply;
    return std::tuple{json::field("items", &T::items), json::field("nextCursor", &T::nextCursor)};
}

// removeItem (4): a file or an empty directory; the reply body is empty. A directory
// that still holds items is refused with alreadyExists.
// makeDirectory (5): the reply is the new directory's RelayItemSummary; an item already
// at the identifier is refused with alreadyExists.
struct RelayItemRequest {
    std::string identifier;

    friend bool operator==(const RelayItemRequest&, const RelayItemRequest&) = default;
};
constexpr auto jsonFields(const RelayItemRequest*) {
    using T = RelayItemRequest;
    return std::tuple{json::field("identifier", &T::identifier)};
}

// renameItem (7): a file at newIdentifier is replaced; the reply is the moved item's
// RelayItemSummary under its new identifier.
struct RelayRenameRequest {
    std::string identifier;
    std::string newIdentifier;

    friend bool operator==(const RelayRenameRequest&, const RelayRenameRequest&) = default;
};
constexpr auto jsonFields(const RelayRenameRequest*) {
    using T = RelayRenameRequest;
    return std::tuple{json::field("identifier", &T::identifier),
                      json::field("newIdentifier", &T::newIdentifier)};
}

}  // namespace skiff::relay
