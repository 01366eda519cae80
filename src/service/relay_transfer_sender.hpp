#pragma once
// The transfer coordinator's way to the companion app: the tunnel relay bridge, addressed
// to the app's port. relayForClient marks the last contact on every reply and drops a
// failed binding itself, so re-establishing only has to let the next send bind anew.
// Holds the bridge; awaited from the coordinator's strand.

#include <memory>
#include <utility>

#include "relay/tunnel_relay_bridge.hpp"
#include "transfer/transfer_coordinator.hpp"

namespace skiff::service {

class RelayTransferSender : public transfer::RelaySender {
public:
    explicit RelayTransferSender(std::shared_ptr<relay::TunnelRelayBridge> bridge)
        : bridge_(std::move(bridge)) {}

    asio::awaitable<transfer::RelayAnswer> send(std::uint16_t code, SharedBytes body) override {
        relay::RelayReply reply = co_await bridge_->relayForClient(code, std::move(body));
        transfer::RelayAnswer answer;
        answer.status = reply.status;
        answer.detail = reply.detail;
        answer.data = std::move(reply.data);
        co_return answer;
    }

    asio::awaitable<void> reestablish() override { co_return; }

private:
    std::shared_ptr<relay::TunnelRelayBridge> bridge_;
};

}  // namespace skiff::service
