#include "mount/probe_link.hpp"

#include <algorithm>
#include <utility>

#include "common/bridge_messages.hpp"

namespace skiff::mount {

BridgeProbeLink::BridgeProbeLink(std::shared_ptr<relay::TunnelRelayBridge> bridge,
                                 ContactSource otherContact)
    : bridge_(std::move(bridge)), otherContact_(std::move(otherContact)) {}

asio::awaitable<std::int64_t> BridgeProbeLink::sendProbe() {
    const auto reply = co_await bridge_->relayForClient(0, {});
    co_return reply.status;
}

std::optional<ProbeLink::TimePoint> BridgeProbeLink::lastContact() const {
    const auto relayed = bridge_->lastIOSContact();
    const auto other = otherContact_ ? otherContact_() : std::nullopt;
    if (relayed && other) {
        return std::max(*relayed, *other);
    }
    return relayed ? relayed : other;
}

asio::awaitable<void> BridgeProbeLink::invalidate() {
    co_await bridge_->invalidateTunnel(service::kCompanionAppPort);
}

ProbeClock::TimePoint SteadyProbeClock::now() const {
    return std::chrono::system_clock::now();
}

asio::awaitable<void> SteadyProbeClock::sleep(Duration d) {
    asio::steady_timer timer(co_await asio::this_coro::executor, d);
    co_await timer.async_wait(asio::use_awaitable);
}

void SteadyProbeClock::deadline(asio::any_io_executor executor, Duration d,
                                std::function<void()> expired) {
    auto timer = std::make_shared<asio::steady_timer>(executor, d);
    timer->async_wait([timer, expired = std::move(expired)](const std::error_code&) { expired(); });
}

}  // namespace skiff::mount
