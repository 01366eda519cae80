// Notification bodies arrive from the phone as push payloads: every decoder must reject
// bad input quietly, and whatever decodes must encode back to an equal record.

#include <cstddef>
#include <cstdint>

#include "common/notification_payloads.hpp"
#include "fuzz/support/json_round_trip.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace skiff::service;
    const std::span<const std::uint8_t> body(data, size);
    skiff::fuzz::checkRoundTrip<NotifyBridgeStateChangedPayload>(body);
    skiff::fuzz::checkRoundTrip<FileIOProgressPayload>(body);
    skiff::fuzz::checkRoundTrip<MountControlNotifyPayload>(body);
    skiff::fuzz::checkRoundTrip<ItemMutationNotifyPayload>(body);
    return 0;
}
