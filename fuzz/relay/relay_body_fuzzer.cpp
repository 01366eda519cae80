// Relay bodies come from the phone and from clients: every decoder must reject
// bad input quietly, and whatever decodes must encode back to an equal record.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "relay/relay_schema.hpp"

namespace {

template <class T>
void roundTrip(std::span<const std::uint8_t> body) {
    const auto decoded = skiff::json::decode<T>(body);
    if (!decoded) {
        return;
    }
    const auto encoded = skiff::json::encode(*decoded);
    if (!encoded) {
        std::abort();
    }
    if (skiff::json::decode<T>(*encoded) != decoded) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::span<const std::uint8_t> body(data, size);
    roundTrip<skiff::relay::RelayItemSummary>(body);
    roundTrip<skiff::relay::RelayLookupRequest>(body);
    roundTrip<skiff::relay::RelayTimespec>(body);
    return 0;
}
