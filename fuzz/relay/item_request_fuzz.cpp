// The item requests come from clients and their replies from the phone: every decoder
// must reject bad input quietly, and whatever decodes must encode back to an equal record.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "fuzz/support/json_round_trip.hpp"
#include "relay/item_requests.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::span<const std::uint8_t> body(data, size);
    skiff::fuzz::checkRoundTrip<skiff::relay::RelayListRequest>(body);
    skiff::fuzz::checkRoundTrip<skiff::relay::RelayListReply>(body);
    skiff::fuzz::checkRoundTrip<skiff::relay::RelayItemRequest>(body);
    skiff::fuzz::checkRoundTrip<skiff::relay::RelayRenameRequest>(body);
    (void)skiff::relay::isValidItemIdentifier(
        std::string_view(reinterpret_cast<const char*>(data), size));
    return 0;
}
