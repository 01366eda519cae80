#include "sim/app_order.hpp"

#include "common/json.hpp"
#include "common/little_endian.hpp"
#include "relay/relay_schema.hpp"

namespace skiff::sim {

std::optional<std::string> itemOfRequest(std::uint16_t code, const Bytes& body) {
    using Selector = relay::UsbMuxRelaySelector;
    const auto selector = static_cast<Selector>(code);
    if (selector == Selector::readChunk || selector == Selector::writeChunk ||
        selector == Selector::readVersionRange) {
        LittleEndianReader reader(body);
        const auto length = reader.number(2);
        const auto identifier = length ? reader.take(*length) : std::nullopt;
        if (!identifier) {
            return std::nullopt;
        }
        return std::string(identifier->begin(), identifier->end());
    }
    if (body.empty() || body.front() != '{') {
        return std::nullopt;
    }
    const auto parsed = json::parse(body);
    if (!parsed || !parsed->is_object()) {
        return std::nullopt;
    }
    const auto it = parsed->find("identifier");
    if (it == parsed->end() || !it->is_string()) {
        return std::nullopt;
    }
    return it->get<std::string>();
}

asio::awaitable<ItemOrder::Turn> ItemOrder::turn(std::string item) {
    auto& slot = items_[item];
    auto mutex = slot.lock();
    if (!mutex) {
        mutex = std::make_shared<runtime::AsyncMutex>();
        slot = mutex;
        // Forget the items nobody waits for; each new entry pays for one sweep.
        std::erase_if(items_, [](const auto& entry) { return entry.second.expired(); });
    }
    Turn turn{mutex, {}};
    turn.lock = co_await mutex->lock();
    co_return turn;
}

}  // namespace skiff::sim
