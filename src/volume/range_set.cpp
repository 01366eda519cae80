#include "volume/range_set.hpp"

#include <algorithm>
#include <limits>
#include <utility>

namespace skiff::volume {

namespace {

constexpr auto kMax = std::numeric_limits<std::uint64_t>::max();

std::uint64_t endOf(std::uint64_t offset, std::uint64_t length) {
    return length > kMax - offset ? kMax : offset + length;
}

}  // namespace

void RangeSet::add(std::uint64_t offset, std::uint64_t length) {
    auto end = endOf(offset, length);
    if (end == offset) {
        return;
    }
    // The first range that ends at or after offset touches or follows the new one.
    auto first =
        std::lower_bound(ranges_.begin(), ranges_.end(), offset,
                         [](const ByteRange& r, std::uint64_t at) { return r.end() < at; });
    auto last = first;
    while (last != ranges_.end() && last->offset <= end) {
        offset = std::min(offset, last->offset);
        end = std::max(end, last->end());
        ++last;
    }
    first = ranges_.erase(first, last);
    ranges_.insert(first, ByteRange{offset, end - offset});
}

void RangeSet::remove(std::uint64_t offset, std::uint64_t length) {
    const auto end = endOf(offset, length);
    if (end == offset) {
        return;
    }
    std::vector<ByteRange> kept;
    kept.reserve(ranges_.size() + 1);
    for (const auto& r : ranges_) {
        if (r.end() <= offset || r.offset >= end) {
            kept.push_back(r);
            continue;
        }
        if (r.offset < offset) {
            kept.push_back({r.offset, offset - r.offset});
        }
        if (r.end() > end) {
            kept.push_back({end, r.end() - end});
        }
    }
    ranges_ = std::move(kept);
}

void RangeSet::truncate(std::uint64_t size) {
    remove(size, kMax - size);
}

bool RangeSet::covers(std::uint64_t offset, std::uint64_t length) const {
    return gaps(offset, length).empty();
}

std::vector<ByteRange> RangeSet::gaps(std::uint64_t offset, std::uint64_t length) const {
    const auto end = endOf(offset, length);
    std::vector<ByteRange> out;
    auto at = offset;
    for (const auto& r : ranges_) {
        if (at >= end || r.offset >= end) {
            break;
        }
        if (r.end() <= at) {
            continue;
        }
        if (r.offset > at) {
            out.push_back({at, r.offset - at});
        }
        at = r.end();
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
