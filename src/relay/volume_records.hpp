#pragma once
// Requests of the mounted volume besides the item requests (relay/item_requests.hpp):
// set an item's attributes, read a range of one content version, ask for the storage's
// space. The JSON ones are coded by common/json.hpp (strict, never throws); the range
// read has a binary body. The app answers code 0 with the reply below, or a
// RelayDeviceStatus with an empty body.
//
// Plain values and pure functions, usable from any thread.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <tuple>

#include "common/json.hpp"
#include "relay/relay_schema.hpp"

namespace skiff::relay {

// setAttributes (8): sets what is present and leaves the rest; mode holds permission bits
// only (at most 07777, anything above is invalidArgument). The reply is the item's
// RelayItemSummary after the change.
struct RelaySetAttributesRequest {
    std::string identifier;
    std::optional<RelayTimespec> modifyTime;
    std::optional<RelayTimespec> accessTime;
    std::optional<std::uint32_t> mode;

    friend bool operator==(const RelaySetAttributesRequest&,
                           const RelaySetAttributesRequest&) = default;
};
constexpr auto jsonFields(const RelaySetAttributesRequest*) {
    using T = RelaySetAttributesRequest;
    return std::tuple{json::field("identifier", &T::identifier),
                      json::field("modifyTime", &T::modifyTime),
                      json::field("accessTime", &T::accessTime), json::field("mode", &T::mode)};
}

inline constexpr std::uint32_t kPermissionBits = 07777;

// storageSpace (12): the request is the empty object.
struct RelaySpaceRequest {
    friend bool operator==(const RelaySpaceRequest&, const RelaySpaceRequest&) = default;
};
constexpr auto jsonFields(const RelaySpaceRequest*) {
    return std::tuple{};
}

struct RelaySpaceReply {
    std::uint64_t totalBytes = 0;
    std::uint64_t freeBytes = 0;

    friend bool operator==(const RelaySpaceReply&, const RelaySpaceReply&) = default;
};
constexpr auto jsonFields(const RelaySpaceReply*) {
    using T = RelaySpaceReply;
    return std::tuple{json::field("totalBytes", &T::totalBytes),
                      json::field("freeBytes", &T::freeBytes)};
}

// readVersionRange (10): the bytes of [offset, offset + length) of the item as it is at
// version. The reply is the bytes, fewer only where the item ends; versionConflict when
// the item's content version is no longer version.
//
// Binary body, little-endian, no padding: u16 identifier length, the identifier's UTF-8
// bytes, u64 offset, u32 length, u16 version length, the version's bytes. The decoder
// takes exactly one body: a short one, trailing bytes, an identifier that is not UTF-8
// or a length over kMaxRangeReadBytes decode to nothing.
inline constexpr std::uint32_t kMaxRangeReadBytes = 4'194'304;
inline constexpr std::size_t kMaxRangeFieldBytes = 65'535;

struct RelayRangeReadRequest {
    std::string identifier;
    std::uint64_t offset = 0;
    std::uint32_t length = 0;
    Bytes version;

    friend bool operator==(const RelayRangeReadRequest&, const RelayRangeReadRequest&) = default;
};

// Nothing when the identifier or the version is over kMaxRangeFieldBytes, the identifier
// is not UTF-8 or the length is over kMaxRangeReadBytes.
std::optional<Bytes> encodeRangeReadRequest(const RelayRangeReadRequest& request);
std::optional<RelayRangeReadRequest> decodeRangeReadRequest(std::span<const std::uint8_t> body);

}  // namespace skiff::relay
