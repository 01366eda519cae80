#pragma once
// Text of the measurement line protocol shared by the measuring operations.

#include <cstdint>
#include <string>

namespace usbmuxkit {

// "<prefix><count>\r\n", e.g. "BW:DOWN:1024\r\n".
std::string measurementHeader(const char* prefix, uint64_t bytes);

// The result line printed after a bandwidth measurement of `bytes` in `seconds`.
std::string throughputLine(uint64_t bytes, double seconds);

}  // namespace usbmuxkit
