#pragma once
// A client's shared buffer for relays: one memfd holding a request area and a reply area
// large enough for any answer, registered with skiffd once. relay() copies the body in,
// calls RelayToUsbMuxShared and copies the answer out, so megabytes never cross the bus.
//
// Threads: one relay at a time per buffer (the two areas are reused); not thread-safe.
// Ownership: releases the buffer with the service when it goes away (if it still can).

#include <cstdint>
#include <memory>
#include <span>

#include "common/bytes.hpp"
#include "common/shared_memory.hpp"
#include "service/dbus/harbor_client.hpp"

namespace skiff::service::dbus {

class SharedRelayBuffer {
public:
    // Room for request bodies of up to kMaxRelayBodyBytes. Throws BusError or
    // std::system_error.
    explicit SharedRelayBuffer(HarborClient& client);
    ~SharedRelayBuffer();
    SharedRelayBuffer(const SharedRelayBuffer&) = delete;
    SharedRelayBuffer& operator=(const SharedRelayBuffer&) = delete;

    std::uint32_t id() const { return id_; }

    // A body over the limit is still sent, as far as the buffer holds it: the service
    // answers it with its size status, as it would over the bus.
    HarborClient::RelayReply relay(std::int64_t selector, std::span<const std::uint8_t> body);

private:
    HarborClient& client_;
    std::unique_ptr<SharedMemory> memory_;
    std::uint32_t id_ = 0;
};

}  // namespace skiff::service::dbus
