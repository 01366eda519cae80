#pragma once

// The companion app's look-up (request code 2): the item summary of a path inside the
// folder that stands for the phone's storage.

#include <cstdint>
#include <filesystem>

#include "common/bytes.hpp"
#include "sim/app_handlers.hpp"
#include "tunnel/tunnel_engine.hpp"

namespace skiff::sim {

inline constexpr std::uint16_t kLookupRequestCode = 2;

// Answers a RelayLookupRequest body with code 0 and a RelayItemSummary, or with
// notFound (1) and an empty body when the item is missing or lies outside `storageRoot`,
// and invalidArgument (4) when the body does not decode. The identifier is a path
// relative to the root ("" and "/" are the root); symbolic links are never followed.
tunnel::TunnelMessage lookUpItem(const std::filesystem::path& storageRoot, const Bytes& body);

void installLookupHandler(AppHandlerTable& table, std::filesystem::path storageRoot);

}  // namespace skiff::sim
