// Arbitrary bytes through the frame header parser; accepted headers must re-encode to
// the same bytes (the reserved byte aside, which is always written 0).

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "tunnel/tunnel_errors.hpp"
#include "tunnel/tunnel_frame.hpp"

using namespace skiff::tunnel;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::span<const std::uint8_t> input(data, size);
    FrameHeader header{};
    try {
        header = parseFrameHeader(input);
    } catch (const TunnelEngineError&) {
        return 0;
    }
    if (header.flow == 0) {
        return 0;
    }
    // A header-only frame is enough to compare; the payload is not part of the header.
    auto encoded = encodeFrame(header.kind, header.code, header.flow, {});
    if (!encoded || encoded->size() != kFrameHeaderSize) {
        std::abort();
    }
    for (std::size_t i = 0; i < 12; ++i) {
        if (i != 5 && (*encoded)[i] != data[i]) {
            std::abort();
        }
    }
    return 0;
}
