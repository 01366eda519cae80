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

// "status 9 (deviceStatus), detail 1 (notFound)"; the detail is named only for status 9.
std::string describeRelayOutcome(std::int64_t status, std::int64_t detail);

// "2024-05-01 12:00:03.000000001 UTC"
std::string formatTime(const relay::RelayTimespec& time);

// Several "key: value" lines, the times as UTC dates with nanoseconds.
std::string describeSummary(const relay::RelayItemSummary& summary);

// A body as text when it is printable UTF-8, else as Base64 text.
std::string printableBody(const Bytes& body);

}  // namespace skiff::ctl
