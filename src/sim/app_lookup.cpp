#include "sim/app_lookup.hpp"

#include <string>

#include "relay/relay_schema.hpp"
#include "sim/app_storage.hpp"

namespace skiff::sim {
namespace {

using relay::RelayDeviceStatus;

tunnel::TunnelMessage failure(RelayDeviceStatus status) {
    return {static_cast<std::uint16_t>(status), {}};
}

}  // namespace

tunnel::TunnelMessage lookUpItem(const std::filesystem::path& storageRoot, const Bytes& body) {
    const auto request = json::decode<relay::RelayLookupRequest>(body);
    if (!request) {
        return failure(RelayDeviceStatus::invalidArgument);
    }
    auto located = locateItem(storageRoot, request->identifier);
    if (const auto* status = std::get_if<RelayDeviceStatus>(&located)) {
        return failure(*status);
    }
    const auto& item = std::get<StorageItem>(located);
    struct statx st {};
    if (!statItem(item, st)) {
        return failure(RelayDeviceStatus::notFound);
    }
    auto answer = json::encode(summaryOf(st, request->identifier, item.name));
    if (!answer) {
        // A name that is not UTF-8 has no JSON spelling.
        return failure(RelayDeviceStatus::ioError);
    }
    return {static_cast<std::uint16_t>(RelayDeviceStatus::ok), std::move(*answer)};
}

namespace {

// A plain function, so that the coroutine owns its arguments rather than a lambda's captures.
asio::awaitable<tunnel::TunnelMessage> answerLookup(std::filesystem::path root, Bytes body) {
    co_return lookUpItem(root, body);
}

}  // namespace

void installLookupHandler(AppHandlerTable& table, std::filesystem::path storageRoot) {
    table[kLookupRequestCode] = [root = std::move(storageRoot)](Bytes body) {
        return answerLookup(root, std::move(body));
    };
}

}  // namespace skiff::sim
