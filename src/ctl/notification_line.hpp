#pragma once
// How `skiffctl watch` prints what it hears: one JSON object per line. A notification has
// no "event" key (scripts written for its first lines keep working); the rest name theirs:
//   {"message":0,"name":"bridgeStateChanged","payload":{"source":2,"connected":true}}
//   {"event":"device","udid":"00008030-001A2B3C4D5E6F70","attached":false}
//   {"event":"service","running":true}
//   {"event":"role","role":"fileprovider","holder":":1.42","replaced":":1.17"}
//   {"event":"volume","notice":"kept a conflict copy of notes.txt"}

#include <cstdint>
#include <string>
#include <string_view>

#include "common/bytes.hpp"
#include "common/json.hpp"

namespace skiff::ctl {

// "unknown" for a code that is no message.
std::string_view notificationName(std::int64_t message);

// A body inside a JSON document: itself when it is JSON, else its Base64 text.
json::Json embeddedBody(const Bytes& body);

std::string notificationLine(std::int64_t message, const Bytes& param);
std::string deviceLine(const std::string& udid, bool attached);
// A role as skiffctl's options name it (fileprovider, desktop, usbmux).
std::string roleName(std::int64_t role);
// A role's holder changed; `replaced` is the client a later one displaced, if any.
std::string roleLine(std::int64_t role, const std::string& holder, const std::string& replaced);
std::string noticeLine(const std::string& text);
// Whether skiffd holds its name on the bus.
std::string serviceLine(bool running);

}  // namespace skiff::ctl
