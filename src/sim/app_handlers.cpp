#include "sim/app_handlers.hpp"

namespace skiff::sim {
namespace {

asio::awaitable<tunnel::TunnelMessage> answerEmpty(Bytes) {
    co_return tunnel::TunnelMessage{0, {}};
}

}  // namespace

void installBasicHandlers(AppHandlerTable& table) {
    table[0] = answerEmpty;
}

}  // namespace skiff::sim
