#include "volume/item_cache.hpp"

#include <utility>

namespace skiff::volume {

ItemCache::ItemCache(Clock::duration lifetime, Now now)
    : lifetime_(lifetime), now_(std::move(now)) {}

std::optional<relay::RelayItemSummary> ItemCache::item(const std::string& identifier) const {
    std::lock_guard guard(mutex_);
    const auto it = items_.find(identifier);
    if (it == items_.end() || it->second.expiry <= now_()) {
        return std::nullopt;
    }
    return it->second.value;
}

void ItemCache::storeItem(const relay::RelayItemSummary& summary) {
    std::lock_guard guard(mutex_);
    items_.insert_or_assign(summary.identifier,
                            Timed<relay::RelayItemSummary>{summary, now_() + lifetime_});
}

std::optional<std::vector<relay::RelayItemSummary>> ItemCache::listing(
    const std::string& directory) const {
    std::lock_guard guard(mutex_);
    const auto it = listings_.find(directory);
    if (it == listings_.end() || it->second.expiry <= now_()) {
        return std::nullopt;
    }
    return it->second.value;
}

void ItemCache::storeListing(const std::string& directory,
                             const std::vector<relay::RelayItemSummary>& items) {
    std::lock_guard guard(mutex_);
    const auto expiry = now_() + lifetime_;
    for (const auto& item : items) {
        items_.insert_or_assign(item.identifier, Timed<relay::RelayItemSummary>{item, expiry});
    }
    listings_.insert_or_assign(directory,
                               Timed<std::vector<relay::RelayItemSummary>>{items, expiry});
    // Expired entries go when a listing comes, so a long walk does not grow the maps.
    std::erase_if(items_, [&](const auto& entry) { return entry.second.expiry <= now_(); });
    std::erase_if(listings_, [&](const auto& entry) { return entry.second.expiry <= now_(); });
}

void ItemCache::forget(const std::string& identifier) {
    std::lock_guard guard(mutex_);
    items_.erase(identifier);
    listings_.erase(identifier);
    listings_.erase(parentOf(identifier));
}

std::string identifierOfPath(const char* path) {
    std::string_view view(path);
    while (!view.empty() && view.front() == '/') {
        view.remove_prefix(1);
    }
    return std::string(view);
}

std::string parentOf(const std::string& identifier) {
    const auto slash = identifier.rfind('/');
    return slash == std::string::npos ? std::string() : identifier.substr(0, slash);
}

}  // namespace skiff::volume
