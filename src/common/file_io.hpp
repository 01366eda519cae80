#pragma once
// Positional reads and writes of whole buffers: the system calls may move fewer bytes than
// asked or be interrupted, and every caller wants all of it or a failure. Blocking; any
// thread. errno tells why after a false.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace skiff {

// Writes all of bytes at offset; false on a failed or short write.
bool writeAllAt(int fd, std::span<const std::uint8_t> bytes, std::uint64_t offset);

// Reads into out from offset until it is full or the file ends; the count read, or
// nothing when a read fails.
std::optional<std::size_t> readUpTo(int fd, std::span<std::uint8_t> out, std::uint64_t offset);

}  // namespace skiff
