#pragma once
// What the last listing of each small folder said, kept for the cache time: a look-up of a
// name in a folder listed a moment ago is answered here, present or absent, without a round
// trip to the phone (`cp` asks for a name it is about to make, `rm` and `cat` for names
// `ls` just showed). The volume's own changes (a new file, a removal, a rename) are written
// into the listing as they are made, so it never contradicts them.
//
// A folder of more than kEntryLimit items is not kept, and marked large: a look-up there
// asks the phone for the one item rather than list the folder again.
//
// Threads: any; one lock inside, held for map work only.

#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "relay/relay_schema.hpp"

namespace skiff::volume {

class FolderCache {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::size_t kEntryLimit = 4096;

    explicit FolderCache(Clock::duration lifetime) : lifetime_(lifetime) {}
    FolderCache(const FolderCache&) = delete;
    FolderCache& operator=(const FolderCache&) = delete;

    enum class Known { unknown, present, absent };
    struct Found {
        Known known = Known::unknown;
        relay::RelayItemSummary item;  // when present
        Clock::time_point asked{};     // when the listing was asked for
    };
    // The item as its folder's fresh listing has it; unknown without one.
    Found find(const std::string& identifier) const;
    // Whether a miss in the folder is worth listing it: it is not known to be large.
    bool worthListing(const std::string& folder) const;

    // A complete listing of `folder`, asked for at `asked`.
    void store(const std::string& folder, Clock::time_point asked,
               const std::vector<relay::RelayItemSummary>& items);
    // The folder has more items than are kept.
    void markLarge(const std::string& folder);
    // The item is now as `item` says (made, renamed or written here).
    void put(const relay::RelayItemSummary& item);
    // The item is gone, and with it everything listed below it.
    void erase(const std::string& identifier);
    // The folder's listing no longer says what its items are like (times changed).
    void drop(const std::string& folder);

private:
    struct Folder {
        Clock::time_point asked{};
        std::unordered_map<std::string, relay::RelayItemSummary> items;  // by name
    };
    bool fresh(const Folder& folder) const { return Clock::now() - folder.asked < lifetime_; }

    const Clock::duration lifetime_;
    mutable std::mutex mutex_;  // guards the members below
    std::unordered_map<std::string, Folder> folders_;
    std::unordered_set<std::string> large_;
};

}  // namespace skiff::volume
