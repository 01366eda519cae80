#pragma once
// Accepts every new client connection: gives it a fresh host object and keeps it pending
// in the registry until its client registers a role. Who the client is gets checked at
// registration, never here.

#include <memory>

#include "common/bridge_protocols.hpp"
#include "service/bridge_core.hpp"

namespace skiff::service {

class ServiceDelegate : public ListenerDelegate {
public:
    explicit ServiceDelegate(std::shared_ptr<BridgeCore> core) : core_(std::move(core)) {}
    bool shouldAcceptNewConnection(const std::shared_ptr<ClientConnection>& connection) override;

private:
    std::shared_ptr<BridgeCore> core_;
};

}  // namespace skiff::service
