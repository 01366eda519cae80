#include "transfer/file_io_records.hpp"

#include <algorithm>

#include "common/little_endian.hpp"

namespace skiff::transfer {
namespace {

constexpr std::size_t kIdentifierLengthBytes = 2;
constexpr std::size_t kOffsetBytes = 8;
constexpr std::size_t kLengthBytes = 4;
constexpr std::size_t kFixedBytes = kIdentifierLengthBytes + kOffsetBytes + kLengthBytes;

// The JSON serializer is the one UTF-8 check the code base has; identifiers are short.
bool isUtf8(std::string_view text) {
    return json::serialize(json::Json(std::string(text))).has_value();
}

bool encodable(std::string_view identifier) {
    return identifier.size() <= kMaxChunkIdentifierBytes && isUtf8(identifier);
}

Bytes header(std::string_view identifier, std::uint64_t offset, std::uint32_t length) {
    Bytes out;
    out.reserve(kFixedBytes + identifier.size());
    appendLittleEndian(out, identifier.size(), kIdentifierLengthBytes);
    out.insert(out.end(), identifier.begin(), identifier.end());
    appendLittleEndian(out, offset, kOffsetBytes);
    appendLittleEndian(out, length, kLengthBytes);
    return out;
}

struct ChunkHeader {
    std::string identifier;
    std::uint64_t offset = 0;
    std::uint32_t length = 0;
};

std::optional<ChunkHeader> readHeader(LittleEndianReader& reader) {
    const auto identifierLength = reader.number(kIdentifierLengthBytes);
    const auto identifier = identifierLength ? reader.take(*identifierLength) : std::nullopt;
    const auto offset = identifier ? reader.number(kOffsetBytes) : std::nullopt;
    const auto length = offset ? reader.number(kLengthBytes) : std::nullopt;
    if (!length) {
        return std::nullopt;
    }
    ChunkHeader header{std::string(identifier->begin(), identifier->end()), *offset,
                       static_cast<std::uint32_t>(*length)};
    if (!isUtf8(header.identifier)) {
        return std::nullopt;
    }
    return header;
}

}  // namespace

bool operator==(const WriteChunkRequest& a, const WriteChunkRequest& b) {
    return a.identifier == b.identifier && a.offset == b.offset &&
           std::ranges::equal(a.bytes, b.bytes);
}

std::optional<Bytes> encodeReadChunkRequest(std::string_view identifier, std::uint64_t offset,
                                            std::uint32_t length) {
    if (!encodable(identifier)) {
        return std::nullopt;
    }
    return header(identifier, offset, length);
}

std::optional<ReadChunkRequest> decodeReadChunkRequest(std::span<const std::uint8_t> body) {
    LittleEndianReader reader(body);
    auto fields = readHeader(reader);
    if (!fields || reader.remaining() != 0) {
        return std::nullopt;
    }
    return ReadChunkRequest{std::move(fields->identifier), fields->offset, fields->length};
}

std::optional<Bytes> encodeWriteChunkHeader(std::string_view identifier, std::uint64_t offset,
                                            std::uint64_t chunkLength) {
    if (chunkLength > kMaxWriteChunkBytes || !encodable(identifier)) {
        return std::nullopt;
    }
    return header(identifier, offset, static_cast<std::uint32_t>(chunkLength));
}

std::optional<Bytes> encodeWriteChunkRequest(std::string_view identifier, std::uint64_t offset,
                                             std::span<const std::uint8_t> chunk) {
    auto body = encodeWriteChunkHeader(identifier, offset, chunk.size());
    if (body) {
        body->insert(body->end(), chunk.begin(), chunk.end());
    }
    return body;
}

std::optional<WriteChunkRequest> decodeWriteChunkRequest(std::span<const std::uint8_t> body) {
    LittleEndianReader reader(body);
    auto fields = readHeader(reader);
    if (!fields || reader.remaining() != fields->length) {
        return std::nullopt;
    }
    return WriteChunkRequest{std::move(fields->identifier), fields->offset,
                             *reader.take(fields->length)};
}

}  // namespace skiff::transfer
