#pragma once
// One listing's pages as the app sends them, checked as they arrive: a hostile reply costs
// a bounded amount of memory and time, never names an item outside the folder asked for,
// and an entry whose name cannot be a file name here is left out rather than failing the
// listing.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <unordered_set>
#include <vector>

#include "common/bytes.hpp"
#include "relay/relay_schema.hpp"

namespace skiff::volume {

// Bounds of one listing: past any of them the listing fails with EIO rather than grow
// without end on a reply that never finishes.
inline constexpr std::size_t kListItemLimit = 500'000;
inline constexpr std::size_t kListPageLimit = 5'000;
inline constexpr std::size_t kListByteLimit = 256 * 1'024 * 1'024;
inline constexpr std::chrono::seconds kListTimeLimit{120};

// A plain value of one listing call; one thread.
class ListingPages {
public:
    ListingPages(std::string folder, std::chrono::steady_clock::time_point deadline);

    // Takes one reply body. 0 and the cursor of the next page (absent: the listing is
    // complete), or EIO: a bound passed, a body that does not decode, a cursor that does not
    // move, or an entry that claims another folder.
    int add(std::span<const std::uint8_t> body, std::optional<std::string>& nextCursor);
    std::vector<relay::RelayItemSummary> take() { return std::move(items_); }

private:
    std::string folder_;
    std::chrono::steady_clock::time_point deadline_;
    std::optional<std::string> cursor_;
    std::size_t pages_ = 0;
    std::size_t bytes_ = 0;
    std::vector<relay::RelayItemSummary> items_;
    std::unordered_set<std::string> names_;
};

// The page with every byte that is not part of a UTF-8 sequence written as the escape of
// NUL, a character no name may hold: a bad name inside a string then decodes and is left
// out, while such bytes anywhere else still break the document as they did.
Bytes escapeStrayBytes(std::span<const std::uint8_t> page);

}  // namespace skiff::volume
