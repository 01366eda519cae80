#include "sim/mux_message.hpp"

#include <arpa/inet.h>
#include <plist/plist.h>

#include <cstring>
#include <memory>

namespace skiff::sim {
namespace {

struct PlistFree {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

uint32_t readLe32(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

void appendLe32(std::vector<uint8_t>& out, uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        out.push_back(uint8_t(v >> (8 * i)));
    }
}

std::optional<std::string> stringItem(plist_t dict, const char* key) {
    plist_t node = plist_dict_get_item(dict, key);
    if (node == nullptr || plist_get_node_type(node) != PLIST_STRING) {
        return std::nullopt;
    }
    // Read in place: libplist's copying getter asserts on strings with embedded NULs.
    uint64_t length = 0;
    const char* value = plist_get_string_ptr(node, &length);
    if (value == nullptr) {
        return std::nullopt;
    }
    return std::string(value, size_t(length));
}

std::optional<uint64_t> uintItem(plist_t dict, const char* key) {
    plist_t node = plist_dict_get_item(dict, key);
    if (node == nullptr || plist_get_node_type(node) != PLIST_UINT) {
        return std::nullopt;
    }
    uint64_t value = 0;
    plist_get_uint_val(node, &value);
    return value;
}

std::vector<uint8_t> frame(uint32_t tag, plist_t dict) {
    char* xml = nullptr;
    uint32_t size = 0;
    plist_to_xml(dict, &xml, &size);
    std::vector<uint8_t> out;
    out.reserve(kMuxHeaderSize + size);
    appendLe32(out, kMuxHeaderSize + size);
    appendLe32(out, kMuxPlistVersion);
    appendLe32(out, kMuxPlistMessage);
    appendLe32(out, tag);
    out.insert(out.end(), xml, xml + size);
    plist_to_xml_free(xml);
    return out;
}

plist_t deviceProperties(const SimDevice& device) {
    plist_t props = plist_new_dict();
    plist_dict_set_item(props, "ConnectionSpeed", plist_new_uint(480000000));
    plist_dict_set_item(props, "ConnectionType", plist_new_string("USB"));
    plist_dict_set_item(props, "DeviceID", plist_new_uint(device.handle));
    plist_dict_set_item(props, "LocationID", plist_new_uint(0x14100000u + device.handle));
    plist_dict_set_item(props, "ProductID", plist_new_uint(device.productId));
    plist_dict_set_item(props, "SerialNumber", plist_new_string(device.udid.c_str()));
    return props;
}

plist_t attachedDict(const SimDevice& device) {
    plist_t dict = plist_new_dict();
    plist_dict_set_item(dict, "DeviceID", plist_new_uint(device.handle));
    plist_dict_set_item(dict, "MessageType", plist_new_string("Attached"));
    plist_dict_set_item(dict, "Properties", deviceProperties(device));
    return dict;
}

MuxRequest malformed(uint32_t tag, std::string reason) {
    MuxRequest request;
    request.tag = tag;
    request.kind = MuxRequestKind::malformed;
    request.error = MuxResult::badCommand;
    request.reason = std::move(reason);
    return request;
}

void decodeConnect(plist_t dict, MuxRequest& request) {
    auto device = uintItem(dict, "DeviceID");
    auto port = uintItem(dict, "PortNumber");
    if (!device || !port || *device > UINT32_MAX || *port > UINT16_MAX) {
        request = malformed(request.tag, "Connect without a valid DeviceID and PortNumber");
        return;
    }
    request.kind = MuxRequestKind::connect;
    request.deviceId = uint32_t(*device);
    // The client puts the port in network byte order before storing it as an integer.
    request.port = ntohs(uint16_t(*port));
}

}  // namespace

std::optional<MuxHeader> parseMuxHeader(std::span<const uint8_t> bytes) {
    if (bytes.size() < kMuxHeaderSize) {
        return std::nullopt;
    }
    MuxHeader header;
    header.length = readLe32(bytes.data());
    header.version = readLe32(bytes.data() + 4);
    header.message = readLe32(bytes.data() + 8);
    header.tag = readLe32(bytes.data() + 12);
    if (header.length < kMuxHeaderSize || header.length > kMuxMaxMessageSize) {
        return std::nullopt;
    }
    return header;
}

MuxRequest decodeMuxRequest(const MuxHeader& header, std::span<const uint8_t> payload) {
    if (header.version != kMuxPlistVersion || header.message != kMuxPlistMessage) {
        MuxRequest request = malformed(header.tag, "not a plist message");
        request.error = MuxResult::badVersion;
        return request;
    }
    if (payload.size() != header.length - kMuxHeaderSize) {
        return malformed(header.tag, "payload length does not match the header");
    }
    if (payload.empty() || payload.size() > UINT32_MAX) {
        return malformed(header.tag, "empty plist");
    }
    plist_t raw = nullptr;
    plist_from_memory(reinterpret_cast<const char*>(payload.data()), uint32_t(payload.size()),
                      &raw);
    PlistPtr dict(raw);
    if (raw == nullptr || plist_get_node_type(raw) != PLIST_DICT) {
        return malformed(header.tag, "payload is not a plist dictionary");
    }
    MuxRequest request;
    request.tag = header.tag;
    auto type = stringItem(raw, "MessageType");
    if (!type) {
        return malformed(header.tag, "no MessageType");
    }
    request.messageType = *type;
    if (*type == "ListDevices") {
        request.kind = MuxRequestKind::listDevices;
    } else if (*type == "Listen") {
        request.kind = MuxRequestKind::listen;
    } else if (*type == "Connect") {
        decodeConnect(raw, request);
        request.messageType = *type;
    } else {
        // ReadBUID, ReadPairRecord and the rest: a simulated phone has no pairing state.
        request.kind = MuxRequestKind::unsupported;
        request.error = MuxResult::badCommand;
    }
    return request;
}

std::vector<uint8_t> encodeResult(uint32_t tag, MuxResult result) {
    PlistPtr dict(plist_new_dict());
    plist_dict_set_item(dict.get(), "MessageType", plist_new_string("Result"));
    plist_dict_set_item(dict.get(), "Number", plist_new_uint(uint32_t(result)));
    return frame(tag, dict.get());
}

std::vector<uint8_t> encodeDeviceList(uint32_t tag, const std::vector<SimDevice>& devices) {
    // Only DeviceList: a MessageType here would make the client read it as an event.
    PlistPtr dict(plist_new_dict());
    plist_t list = plist_new_array();
    for (const auto& device : devices) {
        plist_array_append_item(list, attachedDict(device));
    }
    plist_dict_set_item(dict.get(), "DeviceList", list);
    return frame(tag, dict.get());
}

std::vector<uint8_t> encodeAttached(const SimDevice& device) {
    PlistPtr dict(attachedDict(device));
    return frame(0, dict.get());
}

std::vector<uint8_t> encodeDetached(uint32_t handle) {
    PlistPtr dict(plist_new_dict());
    plist_dict_set_item(dict.get(), "DeviceID", plist_new_uint(handle));
    plist_dict_set_item(dict.get(), "MessageType", plist_new_string("Detached"));
    return frame(0, dict.get());
}

}  // namespace skiff::sim
