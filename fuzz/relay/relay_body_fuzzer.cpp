// Relay bodies come from the phone and from clients: every decoder must reject
// bad input quietly, and whatever decodes must encode back to an equal record.

#include <cstddef>
#include <cstdint>

#include "fuzz/support/json_round_trip.hpp"
#include "relay/relay_schema.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::span<const std::uint8_t> body(data, size);
    skiff::fuzz::checkRoundTrip<skiff::relay::RelayItemSummary>(body);
    skiff::fuzz::checkRoundTrip<skiff::relay::RelayLookupRequest>(body);
    skiff::fuzz::checkRoundTrip<skiff::relay::RelayTimespec>(body);
    return 0;
}
