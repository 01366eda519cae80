#pragma once
// The last few 4 MiB chunks read from the phone, so that the kernel's small reads of one
// chunk cost one relay, and a read-ahead can fill the next chunk while the reader copies
// this one. A chunk is named by the item, its content version and its index: a new
// version never sees the old bytes.
//
// Callers wanting the same chunk at once share one fetch: the first runs it, the others
// wait for its result. A failed fetch is handed to those waiting and not kept.
//
// Threads: any; fetches run on the calling thread, outside the cache's lock.

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>

#include "common/bytes.hpp"

namespace skiff::volume {

struct ChunkKey {
    std::string identifier;
    Bytes contentVersion;
    std::uint64_t index = 0;

    friend bool operator==(const ChunkKey&, const ChunkKey&) = default;
};

class ChunkCache {
public:
    // Fills `out` with the chunk's bytes and returns 0, or returns an errno.
    using Fetch = std::function<int(Bytes& out)>;
    struct Result {
        std::shared_ptr<const Bytes> bytes;  // null when error is set
        int error = 0;
    };

    explicit ChunkCache(std::size_t capacity);
    ChunkCache(const ChunkCache&) = delete;
    ChunkCache& operator=(const ChunkCache&) = delete;

    Result get(const ChunkKey& key, const Fetch& fetch);
    // Whether the chunk is kept or being fetched (a read-ahead need not start again).
    bool holds(const ChunkKey& key) const;
    // Forgets every chunk of the item, whatever its version.
    void dropItem(const std::string& identifier);

private:
    struct Entry {
        ChunkKey key;
        std::shared_ptr<const Bytes> bytes;  // null while being fetched
        int error = 0;
        bool done = false;
    };
    using Entries = std::list<std::shared_ptr<Entry>>;

    Entries::iterator find(const ChunkKey& key);
    void evictBeyondCapacity();

    const std::size_t capacity_;
    mutable std::mutex mutex_;
    std::condition_variable fetched_;
    Entries entries_;  // most recently used first
};

}  // namespace skiff::volume
