#include "service/service_delegate.hpp"

#include "common/log.hpp"
#include "service/harbor_xpc.hpp"

namespace skiff::service {

bool ServiceDelegate::shouldAcceptNewConnection(
    const std::shared_ptr<ClientConnection>& connection) {
    log::xpc().info("accepted new connection");
    auto host = std::make_shared<Harbor_XPC>(*core_);
    core_->hub().addPending(host.get(), connection);
    connection->setExportedObject(host);
    // The adapter drops the handler once it has run, which lets go of the connection.
    connection->setInvalidationHandler([weak = std::weak_ptr(core_), connection] {
        log::xpc().debug("connection invalidated");
        if (auto core = weak.lock()) {
            core->hub().removeConnection(connection);
        }
    });
    return true;
}

}  // namespace skiff::service
