#pragma once
// Shared check of the JSON body fuzzers: a body either fails to decode, or decodes to a
// record that encodes and decodes back to itself. Anything else aborts.

#include <cstdint>
#include <cstdlib>
#include <span>

#include "common/json.hpp"

namespace skiff::fuzz {

template <class T>
void checkRoundTrip(std::span<const std::uint8_t> body) {
    const auto decoded = json::decode<T>(body);
    if (!decoded) {
        return;
    }
    const auto encoded = json::encode(*decoded);
    if (!encoded || json::decode<T>(*encoded) != decoded) {
        std::abort();
    }
}

}  // namespace skiff::fuzz
