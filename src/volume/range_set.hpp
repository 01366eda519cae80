#pragma once
// Disjoint half-open byte ranges of one file: the ranges a local copy holds, or the ranges
// written here and not yet on the phone. Ranges are merged on insert and split on removal,
// so the list stays sorted, disjoint and without two ranges that touch.
//
// A plain value; not thread-safe (its owner's lock guards it).

#include <cstdint>
#include <vector>

namespace skiff::volume {

struct ByteRange {
    std::uint64_t offset = 0;
    std::uint64_t length = 0;

    std::uint64_t end() const { return offset + length; }
    friend bool operator==(const ByteRange&, const ByteRange&) = default;
};

class RangeSet {
public:
    // A range reaching past 2^64 is cut at 2^64; an empty one changes nothing.
    void add(std::uint64_t offset, std::uint64_t length);
    void remove(std::uint64_t offset, std::uint64_t length);
    // Drops everything at or past size.
    void truncate(std::uint64_t size);
    // Whether every byte of [offset, offset + length) is held; an empty range always is.
    bool covers(std::uint64_t offset, std::uint64_t length) const;
    // The parts of [offset, offset + length) that are not held, in order.
    std::vector<ByteRange> gaps(std::uint64_t offset, std::uint64_t length) const;
    const std::vector<ByteRange>& ranges() const { return ranges_; }
    bool empty() const { return ranges_.empty(); }
    std::uint64_t bytes() const;

private:
    std::vector<ByteRange> ranges_;
};

}  // namespace skiff::volume
