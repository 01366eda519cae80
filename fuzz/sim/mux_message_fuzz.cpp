// Whatever a client sends, framing and decoding must end in a request or an error result.
#include <cstddef>
#include <cstdint>
#include <span>

#include "sim/mux_message.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::span<const uint8_t> bytes(data, size);
    auto header = skiff::sim::parseMuxHeader(bytes);
    if (!header) {
        return 0;
    }
    auto request = skiff::sim::decodeMuxRequest(*header, bytes.subspan(skiff::sim::kMuxHeaderSize));
    auto reply = skiff::sim::encodeResult(request.tag, request.error);
    if (reply.size() < skiff::sim::kMuxHeaderSize) {
        __builtin_trap();
    }
    return 0;
}
