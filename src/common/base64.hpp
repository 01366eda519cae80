#pragma once
// Base64 with the standard alphabet and '=' padding. Decoding is strict: no
// whitespace, no missing padding, no stray bits after the last byte.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace skiff::base64 {

std::string encode(std::span<const std::uint8_t> bytes);

std::optional<std::vector<std::uint8_t>> decode(std::string_view text);

}  // namespace skiff::base64
