#pragma once
// The one byte-buffer type that crosses subsystem boundaries (D-Bus `ay`, relay and frame bodies).

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <span>
#include <utility>
#include <vector>

namespace skiff {
using Bytes = std::vector<std::uint8_t>;

// A body that several owners read and nobody changes: a chunk request held by its send and
// by the retry that may follow, and by the socket write under both. Copying one copies a
// reference, never the bytes; made from a Bytes by moving it in, or as a view of bytes
// that live elsewhere (a client's shared buffer) together with what keeps them alive.
// Safe to share between threads (it is never written through).
class SharedBytes {
public:
    SharedBytes() = default;
    // Implicit, so that a Bytes (moved) or a brace list is a body wherever one is taken.
    SharedBytes(Bytes bytes) {
        auto owned = std::make_shared<const Bytes>(std::move(bytes));
        view_ = *owned;
        owner_ = std::move(owned);
    }
    SharedBytes(std::initializer_list<std::uint8_t> bytes) : SharedBytes(Bytes(bytes)) {}
    // `view` stays valid while `owner` lives; the owner may be let go on any thread.
    SharedBytes(std::shared_ptr<const void> owner, std::span<const std::uint8_t> view)
        : owner_(std::move(owner)), view_(view) {}

    std::span<const std::uint8_t> span() const { return view_; }
    const std::uint8_t* data() const { return view_.data(); }
    std::size_t size() const { return view_.size(); }
    bool empty() const { return view_.empty(); }
    Bytes copy() const { return Bytes(view_.begin(), view_.end()); }

private:
    std::shared_ptr<const void> owner_;
    std::span<const std::uint8_t> view_;
};
}  // namespace skiff
