#pragma once
// The one byte-buffer type that crosses subsystem boundaries (D-Bus `ay`, relay and frame bodies).

#include <cstdint>
#include <vector>

namespace skiff {
using Bytes = std::vector<std::uint8_t>;
}  // namespace skiff
