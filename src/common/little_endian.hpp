#pragma once
// Little-endian integers of the binary relay bodies: written at the end of a buffer, read
// front to back. Plain functions and a value type, usable from any thread.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "common/bytes.hpp"

namespace skiff {

inline void appendLittleEndian(Bytes& out, std::uint64_t value, std::size_t bytes) {
    for (std::size_t i = 0; i < bytes; ++i) {
        out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
}

// Reads the fields of a body front to back; every take fails once the body is short.
// The body must outlive the reader and the spans it hands out.
class LittleEndianReader {
public:
    explicit LittleEndianReader(std::span<const std::uint8_t> body) : rest_(body) {}

    std::optional<std::uint64_t> number(std::size_t bytes) {
        const auto taken = take(bytes);
        if (!taken) {
            return std::nullopt;
        }
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < bytes; ++i) {
            value |= static_cast<std::uint64_t>((*taken)[i]) << (8 * i);
        }
        return value;
    }

    std::optional<std::span<const std::uint8_t>> take(std::uint64_t bytes) {
        if (bytes > rest_.size()) {
            return std::nullopt;
        }
        const auto taken = rest_.first(static_cast<std::size_t>(bytes));
        rest_ = rest_.subspan(static_cast<std::size_t>(bytes));
        return taken;
    }

    std::size_t remaining() const { return rest_.size(); }

private:
    std::span<const std::uint8_t> rest_;
};

}  // namespace skiff
