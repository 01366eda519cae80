// The volume's requests come from clients and reach the app: every decoder must reject bad
// input quietly, and whatever decodes must encode back to an equal record.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "fuzz/support/json_round_trip.hpp"
#include "relay/volume_records.hpp"

namespace {

using namespace skiff::relay;

void checkRangeRead(std::span<const std::uint8_t> body) {
    const auto decoded = decodeRangeReadRequest(body);
    if (!decoded) {
        return;
    }
    const auto encoded = encodeRangeReadRequest(*decoded);
    // Strict decoding leaves one spelling per value: the body itself.
    if (!encoded || !std::ranges::equal(*encoded, body) ||
        decodeRangeReadRequest(*encoded) != decoded) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::span<const std::uint8_t> body(data, size);
    skiff::fuzz::checkRoundTrip<RelaySetAttributesRequest>(body);
    skiff::fuzz::checkRoundTrip<RelaySpaceRequest>(body);
    skiff::fuzz::checkRoundTrip<RelaySpaceReply>(body);
    checkRangeRead(body);
    return 0;
}
