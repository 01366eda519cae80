#pragma once

// The usbmuxd wire format as libusbmuxd speaks it: a 16-byte little-endian header
// (total length, protocol version, message type, tag) followed by an XML plist.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "sim/device_table.hpp"

namespace skiff::sim {

inline constexpr uint32_t kMuxHeaderSize = 16;
// libusbmuxd's requests are a few hundred bytes; anything far larger is garbage.
inline constexpr uint32_t kMuxMaxMessageSize = 1u << 20;
inline constexpr uint32_t kMuxPlistVersion = 1;
inline constexpr uint32_t kMuxPlistMessage = 8;

enum class MuxResult : uint32_t {
    ok = 0,
    badCommand = 1,
    badDevice = 2,
    connectionRefused = 3,
    badVersion = 6,
};

struct MuxHeader {
    uint32_t length = 0;  // including the header
    uint32_t version = 0;
    uint32_t message = 0;
    uint32_t tag = 0;
};

enum class MuxRequestKind { listDevices, listen, connect, unsupported, malformed };

struct MuxRequest {
    MuxRequestKind kind = MuxRequestKind::malformed;
    uint32_t tag = 0;
    std::string messageType;          // as sent, for the log
    uint32_t deviceId = 0;            // connect only
    uint16_t port = 0;                // connect only, host byte order
    MuxResult error = MuxResult::ok;  // what to answer an unsupported or malformed request
    std::string reason;               // why it is malformed
};

// Nullopt when fewer than 16 bytes are given or the length cannot be a message:
// the stream can no longer be framed and the connection must be closed.
std::optional<MuxHeader> parseMuxHeader(std::span<const uint8_t> bytes);

// Turns one framed message (header already parsed, payload = the rest) into a request.
// Never fails: bad input comes back as kind malformed or unsupported with the result to send.
MuxRequest decodeMuxRequest(const MuxHeader& header, std::span<const uint8_t> payload);

std::vector<uint8_t> encodeResult(uint32_t tag, MuxResult result);
std::vector<uint8_t> encodeDeviceList(uint32_t tag, const std::vector<SimDevice>& devices);
std::vector<uint8_t> encodeAttached(const SimDevice& device);
std::vector<uint8_t> encodeDetached(uint32_t handle);

}  // namespace skiff::sim
