#pragma once
// Relay outcomes as a person reads them.

#include <cstdint>
#include <string>
#include <string_view>

#include "relay/relay_schema.hpp"

namespace skiff::ctl {

// Case names; "unknown" outside their ranges.
std::string_view relayStatusName(std::int64_t status);
std::string_view deviceStatusName(std::int64_t code);

// A failed relay in words a person can act on ("no phone is attached", "not found on the
// phone"); the numbers stay for --json. `code` is the reply's, or kNoPhone when the caller
// knows no phone is attached. Some refusals read differently per request (`selector`).
inline constexpr std::int64_t kNoPhone = -1;
std::string relayFailureWords(std::int64_t status, std::int64_t code,
                              relay::UsbMuxRelaySelector selector);
// "status 9 (deviceStatus), detail 1 (notFound)"; the detail is named only for status 9.
std::string describeRelayOutcome(std::int64_t status, std::int64_t detail);

// "2024-05-01 12:00:03.000000001 UTC"
std::string formatTime(const relay::RelayTimespec& time);

// Several "key: value" lines, the times as UTC dates with nanoseconds.
std::string describeSummary(const relay::RelayItemSummary& summary);

// A body as text when it is printable UTF-8, else as Base64 text.
std::string printableBody(const Bytes& body);

}  // namespace skiff::ctl
