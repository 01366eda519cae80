// File-IO bodies come from clients and from the phone: every decoder must reject bad
// input quietly, and whatever decodes must encode back to an equal value.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "fuzz/support/json_round_trip.hpp"
#include "transfer/file_io_records.hpp"

namespace {

using namespace skiff::transfer;

void checkReadChunk(std::span<const std::uint8_t> body) {
    const auto decoded = decodeReadChunkRequest(body);
    if (!decoded) {
        return;
    }
    const auto encoded =
        encodeReadChunkRequest(decoded->identifier, decoded->offset, decoded->length);
    // Strict decoding leaves one spelling per value: the body itself.
    if (!encoded || !std::ranges::equal(*encoded, body) ||
        decodeReadChunkRequest(*encoded) != decoded) {
        std::abort();
    }
}

void checkWriteChunk(std::span<const std::uint8_t> body) {
    const auto decoded = decodeWriteChunkRequest(body);
    if (!decoded) {
        return;
    }
    const auto encoded =
        encodeWriteChunkRequest(decoded->identifier, decoded->offset, decoded->bytes);
    if (!encoded || !std::ranges::equal(*encoded, body) ||
        decodeWriteChunkRequest(*encoded) != decoded) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::span<const std::uint8_t> body(data, size);
    using skiff::fuzz::checkRoundTrip;
    checkRoundTrip<FileIOBeginReadRequest>(body);
    checkRoundTrip<FileIOEndReadRequest>(body);
    checkRoundTrip<FileIOBeginWriteRequest>(body);
    checkRoundTrip<FileIOEndWriteRequest>(body);
    checkRoundTrip<SharedFileDescriptor>(body);
    checkRoundTrip<RelayTruncateWriteRequest>(body);
    checkRoundTrip<RelayCommitWriteRequest>(body);
    checkRoundTrip<RelayWriteChunkResponse>(body);
    checkRoundTrip<FileIODeviceRejection>(body);
    checkReadChunk(body);
    checkWriteChunk(body);
    return 0;
}
