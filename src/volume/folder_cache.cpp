#include "volume/folder_cache.hpp"

#include <iterator>

#include "volume/node_table.hpp"

namespace skiff::volume {

namespace {

// Folders remembered as large; past it the memory starts over.
constexpr std::size_t kLargeFoldersKept = 1024;

bool isBelow(const std::string& path, const std::string& folder) {
    return folder.empty() ||
           (path.size() > folder.size() && path.starts_with(folder) && path[folder.size()] == '/');
}

}  // namespace

FolderCache::Found FolderCache::find(const std::string& identifier) const {
    std::lock_guard guard(mutex_);
    const auto folder = folders_.find(parentOf(identifier));
    if (folder == folders_.end() || !fresh(folder->second)) {
        return {};
    }
    const auto item = folder->second.items.find(nameOf(identifier));
    if (item == folder->second.items.end()) {
        return {Known::absent, {}, folder->second.asked};
    }
    return {Known::present, item->second, folder->second.asked};
}

bool FolderCache::worthListing(const std::string& folder) const {
    std::lock_guard guard(mutex_);
    return !large_.contains(folder);
}

void FolderCache::store(const std::string& folder, Clock::time_point asked,
                        const std::vector<relay::RelayItemSummary>& items) {
    if (items.size() > kEntryLimit) {
        markLarge(folder);
        return;
    }
    std::lock_guard guard(mutex_);
    large_.erase(folder);
    // Only the listings of the last second are kept: a walk through many folders holds a
    // second's worth of them, never the whole tree.
    std::erase_if(folders_, [&](const auto& entry) { return !fresh(entry.second); });
    Folder listing{asked, {}};
    for (const auto& item : items) {
        listing.items.emplace(item.filename, item);
    }
    folders_.insert_or_assign(folder, std::move(listing));
}

void FolderCache::markLarge(const std::string& folder) {
    std::lock_guard guard(mutex_);
    if (large_.size() >= kLargeFoldersKept) {
        large_.clear();
    }
    large_.insert(folder);
    folders_.erase(folder);
}

void FolderCache::put(const relay::RelayItemSummary& item) {
    std::lock_guard guard(mutex_);
    const auto folder = folders_.find(parentOf(item.identifier));
    if (folder != folders_.end() && fresh(folder->second)) {
        auto& kept = folder->second.items[nameOf(item.identifier)];
        kept = item;
        kept.filename = nameOf(item.identifier);
    }
}

void FolderCache::drop(const std::string& folder) {
    std::lock_guard guard(mutex_);
    folders_.erase(folder);
}

void FolderCache::erase(const std::string& identifier) {
    std::lock_guard guard(mutex_);
    if (const auto folder = folders_.find(parentOf(identifier)); folder != folders_.end()) {
        folder->second.items.erase(nameOf(identifier));
    }
    std::erase_if(folders_, [&](const auto& entry) {
        return entry.first == identifier || isBelow(entry.first, identifier);
    });
}

}  // namespace skiff::volume
