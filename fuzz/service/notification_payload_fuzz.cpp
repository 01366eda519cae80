// Notification bodies arrive from the phone as push payloads: every decoder must reject
// bad input quietly, and whatever decodes must encode back to an equal record.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "service/notification_payloads.hpp"

namespace {

template <class T, class Same>
void roundTrip(std::span<const std::uint8_t> body, Same same) {
    const auto decoded = skiff::json::decode<T>(body);
    if (!decoded) {
        return;
    }
    const auto encoded = skiff::json::encode(*decoded);
    if (!encoded) {
        std::abort();
    }
    const auto again = skiff::json::decode<T>(*encoded);
    if (!again || !same(*again, *decoded)) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace skiff::service;
    const std::span<const std::uint8_t> body(data, size);
    roundTrip<NotifyBridgeStateChangedPayload>(body, [](const auto& a, const auto& b) {
        return a.source == b.source && a.connected == b.connected;
    });
    roundTrip<FileIOProgressPayload>(body, [](const auto& a, const auto& b) {
        return a.sessionID == b.sessionID && a.completedBytes == b.completedBytes &&
               a.totalBytes == b.totalBytes && a.percent == b.percent;
    });
    roundTrip<MountControlNotifyPayload>(
        body, [](const auto& a, const auto& b) { return a.action == b.action; });
    roundTrip<ItemMutationNotifyPayload>(body, [](const auto& a, const auto& b) {
        return a.kind == b.kind && a.relayID == b.relayID;
    });
    return 0;
}
