#pragma once

// The companion app's request handlers, by request code. Other areas add theirs to the
// table of a running app (CompanionApp::handlers()) before its first connection.

#include <asio.hpp>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <span>
#include <utility>

#include "common/bytes.hpp"
#include "relay/relay_schema.hpp"
#include "tunnel/tunnel_engine.hpp"

namespace skiff::sim {

// Answers one request body with (code, body); it does not fail.
using AppRequestHandler = std::function<asio::awaitable<tunnel::TunnelMessage>(Bytes)>;
using AppHandlerTable = std::map<std::uint16_t, AppRequestHandler>;

// The answer code to a request code that has no handler.
inline constexpr std::uint16_t kUnknownRequestCode = 1;

// Code 0 answers code 0 with an empty body: what a keepalive needs.
void installBasicHandlers(AppHandlerTable& table);

// A request answered at once from the storage folder, on the app's executor.
using StorageRequest = tunnel::TunnelMessage (*)(const std::filesystem::path&, const Bytes&);

// Installs each request of `requests` under its code, answering from `storageRoot`.
void installStorageHandlers(
    AppHandlerTable& table, const std::filesystem::path& storageRoot,
    std::span<const std::pair<relay::UsbMuxRelaySelector, StorageRequest>> requests);

}  // namespace skiff::sim
