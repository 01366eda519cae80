#include "sim/app_handlers.hpp"

#include "relay/relay_schema.hpp"

namespace skiff::sim {
namespace {

asio::awaitable<tunnel::TunnelMessage> answerEmpty(Bytes) {
    co_return tunnel::TunnelMessage{0, {}};
}

}  // namespace

void installBasicHandlers(AppHandlerTable& table) {
    table[static_cast<std::uint16_t>(relay::UsbMuxRelaySelector::ping)] = answerEmpty;
    // The unmount notice asks nothing of the app.
    table[static_cast<std::uint16_t>(relay::UsbMuxRelaySelector::filesystemUnmounted)] =
        answerEmpty;
}

}  // namespace skiff::sim
