#include "relay/volume_records.hpp"

#include "common/little_endian.hpp"

namespace skiff::relay {
namespace {

constexpr std::size_t kFieldLengthBytes = 2;
constexpr std::size_t kOffsetBytes = 8;
constexpr std::size_t kLengthBytes = 4;

// The JSON serializer is the one UTF-8 check the code base has; identifiers are short.
bool isUtf8(std::string_view text) {
    return json::serialize(json::Json(std::string(text))).has_value();
}

}  // namespace

std::optional<Bytes> encodeRangeReadRequest(const RelayRangeReadRequest& request) {
    if (request.identifier.size() > kMaxRangeFieldBytes ||
        request.version.size() > kMaxRangeFieldBytes || request.length > kMaxRangeReadBytes ||
        !isUtf8(request.identifier)) {
        return std::nullopt;
    }
    Bytes out;
    out.reserve(2 * kFieldLengthBytes + kOffsetBytes + kLengthBytes + request.identifier.size() +
                request.version.size());
    appendLittleEndian(out, request.identifier.size(), kFieldLengthBytes);
    out.insert(out.end(), request.identifier.begin(), request.identifier.end());
    appendLittleEndian(out, request.offset, kOffsetBytes);
    appendLittleEndian(out, request.length, kLengthBytes);
    appendLittleEndian(out, request.version.size(), kFieldLengthBytes);
    out.insert(out.end(), request.version.begin(), request.version.end());
    return out;
}

std::optional<RelayRangeReadRequest> decodeRangeReadRequest(std::span<const std::uint8_t> body) {
    LittleEndianReader reader(body);
    const auto identifierLength = reader.number(kFieldLengthBytes);
    const auto identifier = identifierLength ? reader.take(*identifierLength) : std::nullopt;
    const auto offset = identifier ? reader.number(kOffsetBytes) : std::nullopt;
    const auto length = offset ? reader.number(kLengthBytes) : std::nullopt;
    const auto versionLength = length ? reader.number(kFieldLengthBytes) : std::nullopt;
    const auto version = versionLength ? reader.take(*versionLength) : std::nullopt;
    if (!version || reader.remaining() != 0 || *length > kMaxRangeReadBytes) {
        return std::nullopt;
    }
    RelayRangeReadRequest request{std::string(identifier->begin(), identifier->end()), *offset,
                                  static_cast<std::uint32_t>(*length),
                                  Bytes(version->begin(), version->end())};
    if (!isUtf8(request.identifier)) {
        return std::nullopt;
    }
    return request;
}

}  // namespace skiff::relay
