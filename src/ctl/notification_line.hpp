#pragma once
// How `skiffctl watch` prints a notification: one JSON object per line,
//   {"message":0,"name":"bridgeStateChanged","payload":{"source":2,"connected":true}}

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

}  // namespace skiff::ctl
