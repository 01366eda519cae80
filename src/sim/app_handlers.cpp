#include "sim/app_handlers.hpp"

#include "relay/relay_schema.hpp"

namespace skiff::sim {
namespace {

asio::awaitable<tunnel::TunnelMessage> answerEmpty(Bytes) {
    co_return tunnel::TunnelMessage{0, {}};
}

// A plain function, so that the coroutine owns its arguments rather than a lambda's captures.
asio::awaitable<tunnel::TunnelMessage> answerFromStorage(std::filesystem::path root,
                                                         StorageRequest request, Bytes body) {
    co_return request(root, body);
}

}  // namespace

void installStorageHandlers(
    AppHandlerTable& table, const std::filesystem::path& storageRoot,
    std::span<const std::pair<relay::UsbMuxRelaySelector, StorageRequest>> requests) {
    for (const auto& [selector, request] : requests) {
        table[static_cast<std::uint16_t>(selector)] = [root = storageRoot,
                                                       request = request](Bytes body) {
            return answerFromStorage(root, request, std::move(body));
        };
    }
}

void installBasicHandlers(AppHandlerTable& table) {
    table[static_cast<std::uint16_t>(relay::UsbMuxRelaySelector::ping)] = answerEmpty;
    // The unmount notice asks nothing of the app.
    table[static_cast<std::uint16_t>(relay::UsbMuxRelaySelector::filesystemUnmounted)] =
        answerEmpty;
}

}  // namespace skiff::sim
