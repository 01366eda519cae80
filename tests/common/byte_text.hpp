#pragma once
// Text and byte buffers, both ways, for tests that spell bodies as strings.

#include <string>
#include <string_view>

#include "common/bytes.hpp"

namespace skiff::testing {

inline Bytes bytesOf(std::string_view text) {
    return Bytes(text.begin(), text.end());
}
inline std::string textOf(const Bytes& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

}  // namespace skiff::testing
