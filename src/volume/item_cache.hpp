#pragma once
// What the volume knows about the phone's items for a short while: each item's summary,
// and each directory's entries. A listing stores the summary of every entry it returns,
// so that `ls -l` asks the phone once per directory, not once per entry. Missing items
// are never remembered: an item made on the phone must show at its first look-up.
//
// Threads: any; one lock, never held across a call to the phone.

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "relay/relay_schema.hpp"

namespace skiff::volume {

class ItemCache {
public:
    using Clock = std::chrono::steady_clock;
    using Now = std::function<Clock::time_point()>;

    explicit ItemCache(Clock::duration lifetime, Now now = &Clock::now);

    std::optional<relay::RelayItemSummary> item(const std::string& identifier) const;
    void storeItem(const relay::RelayItemSummary& summary);
    // The directory's entries; storing them stores each entry's summary too.
    std::optional<std::vector<relay::RelayItemSummary>> listing(const std::string& directory) const;
    void storeListing(const std::string& directory,
                      const std::vector<relay::RelayItemSummary>& items);
    // Forgets the item, its parent's listing and, for a directory, its own listing.
    void forget(const std::string& identifier);

private:
    template <class T>
    struct Timed {
        T value;
        Clock::time_point expiry;
    };

    const Clock::duration lifetime_;
    const Now now_;
    mutable std::mutex mutex_;
    std::map<std::string, Timed<relay::RelayItemSummary>> items_;
    std::map<std::string, Timed<std::vector<relay::RelayItemSummary>>> listings_;
};

// The identifier of a path under the mount ("/a/b" is "a/b", "/" is "").
std::string identifierOfPath(const char* path);
// The directory holding an identifier ("a/b" is in "a", "a" in "").
std::string parentOf(const std::string& identifier);

}  // namespace skiff::volume
