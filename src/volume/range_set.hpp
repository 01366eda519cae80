#pragma once
// Disjoint half-open byte ranges, merged on insert.
//
// Not thread-safe: its owner's lock guards it.

#include <cstdint>
#include <vector>

namespace skiff::volume {

struct ByteRange {
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
    friend bool operator==(const ByteRange&, const ByteRange&) = default;
};

class RangeSet {
public:
    void add(std::uint64_t offset, std::uint64_t length);
    void remove(std::uint64_t offset, std::uint64_t length);
    // Drops everything at or past size.
    void truncate(std::uint64_t size);
    bool covers(std::uint64_t offset, std::uint64_t length) const;
    // The parts of [offset, offset + length) the set does not hold.
    std::vector<ByteRange> gaps(std::uint64_t offset, std::uint64_t length) const;
    // Sorted, disjoint, non-adjacent.
    const std::vector<ByteRange>& ranges() const { return ranges_; }
    bool empty() const { return ranges_.empty(); }
    std::uint64_t bytes() const;

private:
    std::vector<ByteRange> ranges_;
};

}  // namespace skiff::volume
