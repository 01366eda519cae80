#include "tunnel/tunnel_frame.hpp"

#include "tunnel/tunnel_errors.hpp"

namespace skiff::tunnel {
namespace {

void appendLE(Bytes& out, std::uint32_t value, int width) {
    for (int i = 0; i < width; ++i) {
        out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
}

std::uint32_t readLE(std::span<const std::uint8_t> in, std::size_t offset, int width) {
    std::uint32_t value = 0;
    for (int i = 0; i < width; ++i) {
        value |= static_cast<std::uint32_t>(in[offset + i]) << (8 * i);
    }
    return value;
}

}  // namespace

std::optional<Bytes> encodeFrameHeader(FrameKind kind, std::uint16_t code, std::uint32_t flow,
                                       std::size_t payloadLength) {
    if (payloadLength > maxFramePayload || flow == 0) {
        return std::nullopt;
    }
    Bytes header;
    header.reserve(kFrameHeaderSize);
    appendLE(header, kFrameMagic, 4);
    header.push_back(static_cast<std::uint8_t>(kind));
    header.push_back(0);
    appendLE(header, code, 2);
    appendLE(header, flow, 4);
    appendLE(header, static_cast<std::uint32_t>(payloadLength), 4);
    return header;
}

std::optional<Bytes> encodeFrame(FrameKind kind, std::uint16_t code, std::uint32_t flow,
                                 std::span<const std::uint8_t> payload) {
    auto frame = encodeFrameHeader(kind, code, flow, payload.size());
    if (frame) {
        frame->insert(frame->end(), payload.begin(), payload.end());
    }
    return frame;
}

FrameHeader parseFrameHeader(std::span<const std::uint8_t> header) {
    const TunnelEngineError invalid(TunnelEngineError::Case::invalidFrame);
    if (header.size() != kFrameHeaderSize || readLE(header, 0, 4) != kFrameMagic) {
        throw invalid;
    }
    std::uint8_t kind = header[4];
    if (kind < 1 || kind > 5) {
        throw invalid;
    }
    FrameHeader parsed{static_cast<FrameKind>(kind), header[5],
                       static_cast<std::uint16_t>(readLE(header, 6, 2)), readLE(header, 8, 4),
                       readLE(header, 12, 4)};
    if (parsed.length > maxFramePayload) {
        throw invalid;
    }
    return parsed;
}

std::uint32_t takeFlowValue(std::uint32_t& counter) {
    std::uint32_t value = counter;
    std::uint32_t next = counter + 1;
    counter = next <= 1 ? 1 : next;
    return value;
}

}  // namespace skiff::tunnel
