#pragma once
// The wire format shared with the companion app: a 16-byte little-endian header
// (magic "PRTU", kind, reserved, code, flow, length) followed by the payload.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "common/bridge_messages.hpp"
#include "common/bytes.hpp"

namespace skiff::tunnel {

inline constexpr std::uint32_t kFrameMagic = 0x55545250;
inline constexpr std::size_t kFrameHeaderSize = 16;
// Binds both directions; it is the relay body limit, every relayed body fits one frame.
inline constexpr std::uint32_t maxFramePayload = service::kMaxRelayBodyBytes;

// Kinds 4 and 5 are reserved by the format: they parse, but no endpoint sends or
// accepts them.
enum class FrameKind : std::uint8_t {
    request = 1,
    response = 2,
    push = 3,
    reserved4 = 4,
    reserved5 = 5
};

enum class TunnelFlowScope { clientRPC, serverPush };

// Only the value travels; the scope follows from the frame kind.
struct TunnelFlowID {
    TunnelFlowScope scope;
    std::uint32_t value;
    friend bool operator==(const TunnelFlowID&, const TunnelFlowID&) = default;
};

struct FrameHeader {
    FrameKind kind;
    std::uint8_t reserved;
    std::uint16_t code;
    std::uint32_t flow;
    std::uint32_t length;
};

// Nothing when the payload is over maxFramePayload or flow is 0.
// The header alone, for a payload sent after it from its own buffer (megabyte bodies are
// not copied behind their header).
std::optional<Bytes> encodeFrameHeader(FrameKind kind, std::uint16_t code, std::uint32_t flow,
                                       std::size_t payloadLength);
// The whole frame in one buffer.
std::optional<Bytes> encodeFrame(FrameKind kind, std::uint16_t code, std::uint32_t flow,
                                 std::span<const std::uint8_t> payload);

// Throws TunnelEngineError(invalidFrame) unless header is exactly 16 bytes with the
// magic, a kind of 1 to 5 and a length within maxFramePayload. Flow 0 passes here.
FrameHeader parseFrameHeader(std::span<const std::uint8_t> header);

// Hands out the counter's value and advances it; 0 is never handed out, and after
// 0xFFFFFFFF comes 1.
std::uint32_t takeFlowValue(std::uint32_t& counter);

}  // namespace skiff::tunnel
