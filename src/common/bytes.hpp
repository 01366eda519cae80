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
// reference, never the bytes; made from a Bytes by moving it in. Safe to share between
// threads (it is never written after it is made).
class SharedBytes {
public:
    SharedBytes() = default;
    // Implicit, so that a Bytes (moved) or a brace list is a body wherever one is taken.
    SharedBytes(Bytes bytes) : bytes_(std::make_shared<const Bytes>(std::move(bytes))) {}
    SharedBytes(std::initializer_list<std::uint8_t> bytes) : SharedBytes(Bytes(bytes)) {}

    const Bytes& bytes() const { return bytes_ ? *bytes_ : none(); }
    std::span<const std::uint8_t> span() const { return bytes(); }
    std::size_t size() const { return bytes().size(); }
    bool empty() const { return bytes().empty(); }

private:
    static const Bytes& none() {
        static const Bytes nothing;
        return nothing;
    }

    std::shared_ptr<const Bytes> bytes_;
};
}  // namespace skiff
