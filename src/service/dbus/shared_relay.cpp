#include "service/dbus/shared_relay.hpp"

#include <algorithm>

namespace skiff::service::dbus {

namespace {
// The request area holds one byte more than the limit, so an oversized body stays
// oversized; the reply area follows it.
constexpr std::size_t kRequestArea = kMaxRelayBodyBytes + 1;
}  // namespace

SharedRelayBuffer::SharedRelayBuffer(HarborClient& client)
    : client_(client),
      memory_(SharedMemory::create(kRequestArea + kMaxRelayBodyBytes, "skiff-relay")),
      id_(client_.registerSharedBuffer(memory_->fd())) {}

SharedRelayBuffer::~SharedRelayBuffer() {
    try {
        client_.releaseSharedBuffer(id_);
    } catch (const BusError&) {
        // The service is gone, and the buffer with it.
    }
}

HarborClient::RelayReply SharedRelayBuffer::relay(std::int64_t selector,
                                                  std::span<const std::uint8_t> body) {
    const auto length = std::min(body.size(), kRequestArea);
    std::copy_n(body.begin(), length, memory_->bytes().begin());
    auto answer =
        client_.relayToUsbMuxShared(selector, id_, 0, length, kRequestArea, kMaxRelayBodyBytes);
    auto area = memory_->bytes().subspan(
        kRequestArea, std::min<std::uint64_t>(answer.replyLength, kMaxRelayBodyBytes));
    return {Bytes(area.begin(), area.end()), answer.status, answer.code};
}

}  // namespace skiff::service::dbus
