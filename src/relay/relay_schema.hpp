#pragma once
// Records and codes of the file-system relay between the service, its clients
// and the companion app. Records travel as JSON objects (common/json.hpp);
// the integer enums travel as their raw values.

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <tuple>

#include "common/json.hpp"

namespace skiff::relay {

using json::Bytes;
using json::Json;

// Which file-system operation caused a look-up.
enum class RelayLookupSource : std::uint8_t {
    fsGetAttributes,
    fsLookupByName,
    fsSetAttributesRefresh,
    fsSetAttributesAfterTruncate,
};
std::span<const std::string_view> textNames(RelayLookupSource);

struct RelayLookupRequest {
    std::string identifier;
    RelayLookupSource source = RelayLookupSource::fsGetAttributes;

    friend bool operator==(const RelayLookupRequest&, const RelayLookupRequest&) = default;
};
constexpr auto jsonFields(const RelayLookupRequest*) {
    using T = RelayLookupRequest;
    return std::tuple{json::field("identifier", &T::identifier), json::field("source", &T::source)};
}

struct RelayTimespec {
    std::int64_t tvSec = 0;
    std::int32_t tvNsec = 0;

    friend bool operator==(const RelayTimespec&, const RelayTimespec&) = default;
};
constexpr auto jsonFields(const RelayTimespec*) {
    using T = RelayTimespec;
    return std::tuple{json::field("tvSec", &T::tvSec), json::field("tvNsec", &T::tvNsec)};
}

struct RelayItemSummary {
    std::string identifier;
    std::string filename;
    bool isDirectory = false;
    std::uint64_t inode = 0;
    std::uint64_t size = 0;
    std::uint64_t allocSize = 0;
    std::uint32_t mode = 0;
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    std::uint32_t flags = 0;
    std::uint32_t linkCount = 0;
    RelayTimespec accessTime;
    RelayTimespec modifyTime;
    RelayTimespec changeTime;
    RelayTimespec birthTime;
    std::optional<Bytes> contentVersion;
    std::optional<Bytes> metadataVersion;

    // Member-wise in declaration order; an absent version equals only an absent one.
    friend bool operator==(const RelayItemSummary&, const RelayItemSummary&) = default;
};
constexpr auto jsonFields(const RelayItemSummary*) {
    using T = RelayItemSummary;
    using json::field;
    return std::tuple{
        field("identifier", &T::identifier),
        field("filename", &T::filename),
        field("isDirectory", &T::isDirectory),
        field("inode", &T::inode),
        field("size", &T::size),
        field("allocSize", &T::allocSize),
        field("mode", &T::mode),
        field("uid", &T::uid),
        field("gid", &T::gid),
        field("flags", &T::flags),
        field("linkCount", &T::linkCount),
        field("accessTime", &T::accessTime),
        field("modifyTime", &T::modifyTime),
        field("changeTime", &T::changeTime),
        field("birthTime", &T::birthTime),
        field("contentVersion", &T::contentVersion),
        field("metadataVersion", &T::metadataVersion),
    };
}

// Status of a relay reply. Only ok, notConnected, transportFailed,
// payloadTooLarge and deviceStatus are produced by the relay path itself.
enum class UsbMuxRelayError : std::int64_t {
    ok = 0,
    notConnected = 1,  // caller not a registered client, or the engine is not bound
    invalidRequest = 2,
    transportFailed = 3,  // no USB-mux connection, or the tunnel failed
    timedOut = 4,
    encodeFailed = 5,
    decodeFailed = 6,
    payloadTooLarge = 7,  // body over the frame payload limit
    unsupportedSelector = 8,
    deviceStatus = 9,  // the app answered non-zero; the detail is the RelayDeviceStatus
    busy = 10,
    cancelled = 11,
    internalError = 12,
};
constexpr std::size_t caseCount(UsbMuxRelayError) {
    return static_cast<std::size_t>(UsbMuxRelayError::internalError) + 1;
}

// The companion app's answer code.
enum class RelayDeviceStatus : std::int64_t {
    ok = 0,
    notFound = 1,
    permissionDenied = 2,
    alreadyExists = 3,
    invalidArgument = 4,
    ioError = 5,  // also stands for any answer code the service does not know
    versionConflict = 6,
    notDirectory = 7,
    isDirectory = 8,
    noSpace = 9,
};
constexpr std::size_t caseCount(RelayDeviceStatus) {
    return static_cast<std::size_t>(RelayDeviceStatus::noSpace) + 1;
}

// The client's selector, sent as the frame code of the tunnel request. Codes
// nobody sends keep placeholder names. The item requests of codes 3, 4, 5 and 7 are
// in relay/item_requests.hpp, those of codes 8, 10 and 12 in relay/volume_records.hpp.
enum class UsbMuxRelaySelector : std::int64_t {
    ping = 0,
    reserved1 = 1,
    lookupItem = 2,
    listDirectory = 3,
    removeItem = 4,
    makeDirectory = 5,
    commitWrite = 6,
    renameItem = 7,
    setAttributes = 8,
    readChunk = 9,
    readVersionRange = 10,
    writeChunk = 11,
    storageSpace = 12,
    reserved13 = 13,
    reserved14 = 14,
    truncateWrite = 15,
    reserved16 = 16,
    reserved17 = 17,
    reserved18 = 18,
    reserved19 = 19,
    filesystemUnmounted = 20,
};
constexpr std::size_t caseCount(UsbMuxRelaySelector) {
    return static_cast<std::size_t>(UsbMuxRelaySelector::filesystemUnmounted) + 1;
}

}  // namespace skiff::relay
