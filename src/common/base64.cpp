#include "common/base64.hpp"

#include <array>

namespace skiff::base64 {
namespace {

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::uint8_t kInvalid = 0xFF;

constexpr std::array<std::uint8_t, 256> makeDecodeTable() {
    std::array<std::uint8_t, 256> table{};
    table.fill(kInvalid);
    for (std::size_t i = 0; i < kAlphabet.size(); ++i) {
        table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::uint8_t>(i);
    }
    return table;
}

constexpr auto kDecodeTable = makeDecodeTable();

}  // namespace

std::string encode(std::span<const std::uint8_t> bytes) {
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        const std::uint32_t n = (bytes[i] << 16) | (bytes[i + 1] << 8) | bytes[i + 2];
        out += kAlphabet[(n >> 18) & 0x3F];
        out += kAlphabet[(n >> 12) & 0x3F];
        out += kAlphabet[(n >> 6) & 0x3F];
        out += kAlphabet[n & 0x3F];
    }
    const std::size_t rest = bytes.size() - i;
    if (rest == 1) {
        const std::uint32_t n = bytes[i] << 16;
        out += kAlphabet[(n >> 18) & 0x3F];
        out += kAlphabet[(n >> 12) & 0x3F];
        out += "==";
    } else if (rest == 2) {
        const std::uint32_t n = (bytes[i] << 16) | (bytes[i + 1] << 8);
        out += kAlphabet[(n >> 18) & 0x3F];
        out += kAlphabet[(n >> 12) & 0x3F];
        out += kAlphabet[(n >> 6) & 0x3F];
        out += '=';
    }
    return out;
}

std::optional<std::vector<std::uint8_t>> decode(std::string_view text) {
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    std::size_t padding = 0;
    if (!text.empty() && text.back() == '=') {
        padding = text[text.size() - 2] == '=' ? 2 : 1;
    }
    std::vector<std::uint8_t> out;
    out.reserve(text.size() / 4 * 3);
    for (std::size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        const std::size_t digits = last ? 4 - padding : 4;
        std::uint32_t n = 0;
        for (std::size_t k = 0; k < 4; ++k) {
            std::uint8_t value = 0;
            if (k < digits) {
                value = kDecodeTable[static_cast<unsigned char>(text[i + k])];
                if (value == kInvalid) {
                    return std::nullopt;
                }
            }
            n = (n << 6) | value;
        }
        out.push_back(static_cast<std::uint8_t>(n >> 16));
        if (digits > 2) {
            out.push_back(static_cast<std::uint8_t>(n >> 8));
        }
        if (digits > 3) {
            out.push_back(static_cast<std::uint8_t>(n));
        }
        // Bits below the last whole byte must be zero, or two texts would
        // decode to the same bytes.
        if ((digits == 2 && (n & 0xFFFF) != 0) || (digits == 3 && (n & 0xFF) != 0)) {
            return std::nullopt;
        }
    }
    return out;
}

}  // namespace skiff::base64
