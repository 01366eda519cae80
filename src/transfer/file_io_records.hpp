#pragma once
// Records of whole-file transfers. The file-system extension asks for a read or a write
// with the JSON requests below (the body of RequestFileIO); the service answers a read
// with a SharedFileDescriptor. Towards the companion app a transfer sends the JSON write
// records and two small binary bodies, and reads RelayWriteChunkResponse, RelayItemSummary
// or FileIODeviceRejection answers. JSON coding is common/json.hpp's: strict, never throws.
//
// Everything here is plain values and pure functions, usable from any thread.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <tuple>

#include "common/json.hpp"
#include "common/uuid.hpp"
#include "relay/relay_schema.hpp"

namespace skiff::transfer {

using json::Bytes;

// Chunk size of reads and writes; a chunk request stays below the largest relay body.
inline constexpr std::uint32_t kChunkSize = 4'194'304;

// --- requests of the extension ---------------------------------------------------

// The operation a RequestFileIO call asks for, carried as its raw value.
enum class FileIOOperation : std::int64_t {
    beginRead = 0,   // body: FileIOBeginReadRequest
    endRead = 1,     // body: FileIOEndReadRequest
    beginWrite = 2,  // body: FileIOBeginWriteRequest
    endWrite = 3,    // body: FileIOEndWriteRequest
};
constexpr std::size_t caseCount(FileIOOperation) {
    return static_cast<std::size_t>(FileIOOperation::endWrite) + 1;
}
inline std::optional<FileIOOperation> fileIOOperationFromRaw(std::int64_t raw) {
    return json::enumFromRaw<FileIOOperation>(raw);
}

// The status of a RequestFileIO reply. The host interface itself answers notRegistered,
// decodeFailed and noDevice; the others report how a transfer ended, one per way a
// transfer can fail.
enum class FileIOBridgeError : std::int64_t {
    ok = 0,
    notRegistered = 1,       // the caller is not a registered client
    deviceRejected = 2,      // the phone refused; like every failure, answered with no data
    decodeFailed = 3,        // the request body does not decode as its operation's record
    noDevice = 4,            // no phone is attached for a begin request
    transportFailed = 5,     // the tunnel to the phone failed, or a request was too large
    storageFailed = 6,       // a file of the shared container could not be made, read or written
    invalidDeviceReply = 7,  // the phone's answer does not decode as the expected record
    encodeFailed = 8,        // a request to the phone cannot be encoded (e.g. the identifier)
};
constexpr std::size_t caseCount(FileIOBridgeError) {
    return static_cast<std::size_t>(FileIOBridgeError::encodeFailed) + 1;
}
inline std::optional<FileIOBridgeError> fileIOBridgeErrorFromRaw(std::int64_t raw) {
    return json::enumFromRaw<FileIOBridgeError>(raw);
}

// identifier names the item on the phone; sessionID the client's progress display.
struct FileIOBeginReadRequest {
    std::string identifier;
    Uuid sessionID;

    friend bool operator==(const FileIOBeginReadRequest&, const FileIOBeginReadRequest&) = default;
};
constexpr auto jsonFields(const FileIOBeginReadRequest*) {
    using T = FileIOBeginReadRequest;
    return std::tuple{json::field("identifier", &T::identifier),
                      json::field("sessionID", &T::sessionID)};
}

// token: the one the begin-read reply handed out.
struct FileIOEndReadRequest {
    std::string token;

    friend bool operator==(const FileIOEndReadRequest&, const FileIOEndReadRequest&) = default;
};
constexpr auto jsonFields(const FileIOEndReadRequest*) {
    return std::tuple{json::field("token", &FileIOEndReadRequest::token)};
}

// A push of the container file sourceFileName (byteCount bytes) to the item, refused by
// the phone when the item's content version is no longer expectedContentVersion. The
// token is the writer's own and names the push until its end request.
struct FileIOBeginWriteRequest {
    std::string identifier;
    Uuid sessionID;
    Bytes expectedContentVersion;
    std::string token;
    std::string sourceFileName;
    std::uint64_t byteCount = 0;

    friend bool operator==(const FileIOBeginWriteRequest&,
                           const FileIOBeginWriteRequest&) = default;
};
constexpr auto jsonFields(const FileIOBeginWriteRequest*) {
    using T = FileIOBeginWriteRequest;
    using json::field;
    return std::tuple{
        field("identifier", &T::identifier),
        field("sessionID", &T::sessionID),
        field("expectedContentVersion", &T::expectedContentVersion),
        field("token", &T::token),
        field("sourceFileName", &T::sourceFileName),
        field("byteCount", &T::byteCount),
    };
}

struct FileIOEndWriteRequest {
    std::string token;

    friend bool operator==(const FileIOEndWriteRequest&, const FileIOEndWriteRequest&) = default;
};
constexpr auto jsonFields(const FileIOEndWriteRequest*) {
    return std::tuple{json::field("token", &FileIOEndWriteRequest::token)};
}

// The answer to a begin-read: the fetched file's name in the shared container, and the
// token that releases it.
struct SharedFileDescriptor {
    std::string token;
    std::string fileName;
    std::uint64_t byteCount = 0;
    Bytes contentVersion;
    Bytes metadataVersion;

    friend bool operator==(const SharedFileDescriptor&, const SharedFileDescriptor&) = default;
};
constexpr auto jsonFields(const SharedFileDescriptor*) {
    using T = SharedFileDescriptor;
    using json::field;
    return std::tuple{
        field("token", &T::token),
        field("fileName", &T::fileName),
        field("byteCount", &T::byteCount),
        field("contentVersion", &T::contentVersion),
        field("metadataVersion", &T::metadataVersion),
    };
}

// --- records exchanged with the companion app ---------------------------------------

// Stages a write of the item, cut or extended to size. When expectedContentVersion is
// present the app refuses unless the item still has that version.
struct RelayTruncateWriteRequest {
    std::string identifier;
    std::uint64_t size = 0;
    std::optional<Bytes> expectedContentVersion;

    friend bool operator==(const RelayTruncateWriteRequest&,
                           const RelayTruncateWriteRequest&) = default;
};
constexpr auto jsonFields(const RelayTruncateWriteRequest*) {
    using T = RelayTruncateWriteRequest;
    return std::tuple{json::field("identifier", &T::identifier), json::field("size", &T::size),
                      json::field("expectedContentVersion", &T::expectedContentVersion)};
}

// Makes the staged write the item's content.
struct RelayCommitWriteRequest {
    std::string identifier;

    friend bool operator==(const RelayCommitWriteRequest&,
                           const RelayCommitWriteRequest&) = default;
};
constexpr auto jsonFields(const RelayCommitWriteRequest*) {
    return std::tuple{json::field("identifier", &RelayCommitWriteRequest::identifier)};
}

struct RelayWriteChunkResponse {
    std::uint64_t nextOffset = 0;   // where the next chunk starts
    std::uint64_t currentSize = 0;  // the staged file's length after the chunk
    std::optional<relay::RelayItemSummary> summary;

    friend bool operator==(const RelayWriteChunkResponse&,
                           const RelayWriteChunkResponse&) = default;
};
constexpr auto jsonFields(const RelayWriteChunkResponse*) {
    using T = RelayWriteChunkResponse;
    return std::tuple{json::field("nextOffset", &T::nextOffset),
                      json::field("currentSize", &T::currentSize),
                      json::field("summary", &T::summary)};
}

// The phone's refusal; status is meant as a RelayDeviceStatus raw value, but any integer
// decodes, so that the receiver decides how to map one it does not know.
struct FileIODeviceRejection {
    std::int64_t status = 0;

    friend bool operator==(const FileIODeviceRejection&, const FileIODeviceRejection&) = default;
};
constexpr auto jsonFields(const FileIODeviceRejection*) {
    return std::tuple{json::field("status", &FileIODeviceRejection::status)};
}

// --- binary chunk bodies ----------------------------------------------------------------
// Little-endian, no padding: u16 identifier length, the identifier's UTF-8 bytes, u64
// offset, u32 length, and for a write the chunk's bytes. Decoders take exactly one body:
// a short one, trailing bytes or an identifier that is not UTF-8 decode to nothing.

inline constexpr std::size_t kMaxChunkIdentifierBytes = 65'535;
inline constexpr std::uint64_t kMaxWriteChunkBytes = 0xFFFF'FFFF;

struct ReadChunkRequest {
    std::string identifier;
    std::uint64_t offset = 0;
    std::uint32_t length = 0;

    friend bool operator==(const ReadChunkRequest&, const ReadChunkRequest&) = default;
};

// bytes points into the decoded body, which must outlive it: a write chunk is large.
struct WriteChunkRequest {
    std::string identifier;
    std::uint64_t offset = 0;
    std::span<const std::uint8_t> bytes;

    friend bool operator==(const WriteChunkRequest& a, const WriteChunkRequest& b);
};

// Nothing when the identifier is longer than kMaxChunkIdentifierBytes or not UTF-8.
std::optional<Bytes> encodeReadChunkRequest(std::string_view identifier, std::uint64_t offset,
                                            std::uint32_t length = kChunkSize);
std::optional<ReadChunkRequest> decodeReadChunkRequest(std::span<const std::uint8_t> body);

// The write body up to the chunk's bytes. The caller appends chunkLength bytes, e.g. by
// growing the buffer and reading the file straight into its tail, so that a 4 MiB chunk
// is copied once. Nothing for an identifier that cannot be encoded or a chunkLength
// above kMaxWriteChunkBytes.
std::optional<Bytes> encodeWriteChunkHeader(std::string_view identifier, std::uint64_t offset,
                                            std::uint64_t chunkLength);
// The whole write body: the header above with the chunk appended.
std::optional<Bytes> encodeWriteChunkRequest(std::string_view identifier, std::uint64_t offset,
                                             std::span<const std::uint8_t> chunk);
std::optional<WriteChunkRequest> decodeWriteChunkRequest(std::span<const std::uint8_t> body);

}  // namespace skiff::transfer
