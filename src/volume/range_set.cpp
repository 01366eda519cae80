#include "volume/range_set.hpp"

#include <algorithm>

namespace skiff::volume {

void RangeSet::add(std::uint64_t offset, std::uint64_t length) {
    if (length == 0) {
        return;
    }
    std::uint64_t start = offset;
    std::uint64_t end = offset + length;
    std::vector<ByteRange> out;
    out.reserve(ranges_.size() + 1);
    bool placed = false;
    for (const auto& r : ranges_) {
        const std::uint64_t rEnd = r.offset + r.length;
        if (rEnd < start) {
            out.push_back(r);
        } else if (r.offset > end) {
            if (!placed) {
                out.push_back({start, end - start});
                placed = true;
            }
            out.push_back(r);
        } else {
            start = std::min(start, r.offset);
            end = std::max(end, rEnd);
        }
    }
    if (!placed) {
        out.push_back({start, end - start});
    }
    ranges_ = std::move(out);
}

void RangeSet::remove(std::uint64_t offset, std::uint64_t length) {
    const std::uint64_t end = offset + length;
    std::vector<ByteRange> out;
    for (const auto& r : ranges_) {
        const std::uint64_t rEnd = r.offset + r.length;
        if (rEnd <= offset || r.offset >= end) {
            out.push_back(r);
            continue;
        }
        if (r.offset < offset) {
            out.push_back({r.offset, offset - r.offset});
        }
        if (rEnd > end) {
            out.push_back({end, rEnd - end});
        }
    }
    ranges_ = std::move(out);
}

void RangeSet::truncate(std::uint64_t size) {
    remove(size, UINT64_MAX - size);
}

bool RangeSet::covers(std::uint64_t offset, std::uint64_t length) const {
    return gaps(offset, length).empty();
}

std::vector<ByteRange> RangeSet::gaps(std::uint64_t offset, std::uint64_t length) const {
    std::vector<ByteRange> out;
    std::uint64_t at = offset;
    const std::uint64_t end = offset + length;
    for (const auto& r : ranges_) {
        if (at >= end) {
            break;
        }
        const std::uint64_t rEnd = r.offset + r.length;
        if (rEnd <= at) {
            continue;
        }
        if (r.offset > at) {
            out.push_back({at, std::min(r.offset, end) - at});
        }
        at = std::max(at, rEnd);
    }
    if (at < end) {
        out.push_back({at, end - at});
    }
    return out;
}

std::uint64_t RangeSet::bytes() const {
    std::uint64_t total = 0;
    for (const auto& r : ranges_) {
        total += r.length;
    }
    return total;
}

}  // namespace skiff::volume
