#include "volume/chunk_cache.hpp"

#include <algorithm>
#include <utility>

namespace skiff::volume {

ChunkCache::ChunkCache(std::size_t capacity) : capacity_(std::max<std::size_t>(capacity, 1)) {}

ChunkCache::Entries::iterator ChunkCache::find(const ChunkKey& key) {
    return std::find_if(entries_.begin(), entries_.end(),
                        [&](const auto& entry) { return entry->key == key; });
}

ChunkCache::Result ChunkCache::get(const ChunkKey& key, const Fetch& fetch) {
    std::unique_lock lock(mutex_);
    if (auto it = find(key); it != entries_.end()) {
        auto entry = *it;
        entries_.splice(entries_.begin(), entries_, it);
        fetched_.wait(lock, [&] { return entry->done; });
        return {entry->bytes, entry->error};
    }
    auto entry = std::make_shared<Entry>(Entry{key, nullptr, 0, false});
    entries_.push_front(entry);
    lock.unlock();

    auto bytes = std::make_shared<Bytes>();
    const int error = fetch(*bytes);

    lock.lock();
    entry->done = true;
    entry->error = error;
    if (error == 0) {
        entry->bytes = std::move(bytes);
    } else if (auto it = std::find(entries_.begin(), entries_.end(), entry); it != entries_.end()) {
        entries_.erase(it);
    }
    evictBeyondCapacity();
    fetched_.notify_all();
    return {entry->bytes, entry->error};
}

bool ChunkCache::holds(const ChunkKey& key) const {
    std::lock_guard guard(mutex_);
    return std::any_of(entries_.begin(), entries_.end(),
                       [&](const auto& entry) { return entry->key == key; });
}

void ChunkCache::dropItem(const std::string& identifier) {
    std::lock_guard guard(mutex_);
    // Entries still being fetched stay: their fetchers and waiters hold them, and they
    // leave by eviction like any other.
    entries_.remove_if(
        [&](const auto& entry) { return entry->done && entry->key.identifier == identifier; });
}

void ChunkCache::evictBeyondCapacity() {
    // Only finished chunks are evicted, oldest first; a fetch in flight always finishes.
    auto it = entries_.end();
    while (entries_.size() > capacity_ && it != entries_.begin()) {
        --it;
        if ((*it)->done) {
            it = entries_.erase(it);
        }
    }
}

}  // namespace skiff::volume
