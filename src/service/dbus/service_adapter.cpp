#include "service/dbus/service_adapter.hpp"

#include "service/dbus/bus_loop.hpp"
#include "service/dbus/bus_names.hpp"
#include "service/dbus/host_adaptor.hpp"

namespace skiff::service::dbus {

struct ServiceAdapter::Impl {
    Impl(std::shared_ptr<ListenerDelegate> delegate, const std::string& busAddress)
        : loop(std::make_shared<BusLoop>(busAddress)),
          name(loop->connection().getUniqueName()),
          peers(loop, std::move(delegate)),
          host(loop, peers) {
        try {
            // Watch departures before anyone can call, so no peer is missed.
            ownerWatch = loop->connection().addMatch(
                "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
                "interface='org.freedesktop.DBus',member='NameOwnerChanged'",
                [this](sdbus::Message& message) {
                    std::string name, oldOwner, newOwner;
                    message >> name >> oldOwner >> newOwner;
                    if (newOwner.empty()) {
                        peers.peerGone(name);
                    }
                });
            loop->connection().requestName(kServiceName);
        } catch (const sdbus::Error& e) {
            throw BusError(e.getName(), e.getMessage());
        }
    }

    ~Impl() {
        loop->stop();
        ownerWatch = {};
        peers.clear();
    }

    std::shared_ptr<BusLoop> loop;
    std::string name;
    PeerTable peers;
    HostAdaptor host;
    sdbus::Slot ownerWatch;
};

ServiceAdapter::ServiceAdapter(std::shared_ptr<ListenerDelegate> delegate,
                               const std::string& busAddress)
    : impl_(std::make_unique<Impl>(std::move(delegate), busAddress)) {}

ServiceAdapter::~ServiceAdapter() = default;

void ServiceAdapter::start() {
    impl_->loop->start();
}
void ServiceAdapter::run() {
    impl_->loop->run();
}
void ServiceAdapter::stop() {
    impl_->loop->stop();
}

std::string ServiceAdapter::uniqueName() const {
    return impl_->name;
}

}  // namespace skiff::service::dbus
