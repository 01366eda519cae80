#include "service/dbus/service_adapter.hpp"

#include <cstring>
#include <future>

#include "common/log.hpp"
#include "service/dbus/bus_calls.hpp"
#include "service/dbus/bus_connection.hpp"
#include "service/dbus/bus_names.hpp"
#include "service/dbus/host_object.hpp"
#include "service/dbus/notice_queue.hpp"

namespace skiff::service::dbus {

namespace {

int emitSignal(BusConnection& bus, const char* member,
               const std::function<int(sd_bus_message*)>& appendArgs) {
    sd_bus_message* raw = nullptr;
    int r = sd_bus_message_new_signal(bus.bus(), &raw, kHostPath, kHostInterface, member);
    auto message = MessageRef::adopt(raw);
    if (r >= 0) {
        r = appendArgs(raw);
    }
    if (r >= 0) {
        r = sd_bus_send(bus.bus(), raw, nullptr);
    }
    return r;
}

// The observer signals. Notifications share one bounded queue, like a client's.
class SignalEmitter final : public BridgeObserver {
public:
    explicit SignalEmitter(std::shared_ptr<BusConnection> bus)
        : bus_(bus),
          notifications_(NoticeQueue::create(
              std::move(bus), "observers",
              [](BusConnection& b, std::int64_t message, const Bytes& param) {
                  return emitSignal(b, kSignalNotification, [&](sd_bus_message* m) {
                      return wire::appendAll(m, message, param);
                  });
              },
              kObserverQueueBytes)) {}

    void notificationPosted(std::int64_t message, const Bytes& param) override {
        notifications_->offer(message, param);
    }

    void deviceChanged(const std::string& udid, bool attached) override {
        post(kSignalDeviceChanged, udid, attached);
    }
    void roleChanged(std::int64_t role, const std::string& holder,
                     const std::string& replaced) override {
        post(kSignalRoleChanged, role, holder, replaced);
    }
    void volumeNotice(const std::string& text) override { post(kSignalVolumeNotice, text); }

private:
    template <class... A>
    void post(const char* member, A... args) {
        bus_->post([bus = bus_, member, args...] {
            const int r = emitSignal(
                *bus, member, [&](sd_bus_message* m) { return wire::appendAll(m, args...); });
            if (r < 0) {
                log::xpc().error("%{public}s not sent: %{public}s", member, std::strerror(-r));
            }
        });
    }

    std::shared_ptr<BusConnection> bus_;
    std::shared_ptr<NoticeQueue> notifications_;
};

int onNameOwnerChanged(sd_bus_message* m, void* userdata, sd_bus_error*) {
    std::string name, oldOwner, newOwner;
    if (wire::readAll(m, name, oldOwner, newOwner) >= 0 && newOwner.empty() &&
        name.starts_with(':')) {
        static_cast<PeerTable*>(userdata)->peerGone(name);
    }
    return 0;
}

}  // namespace

struct ServiceAdapter::Impl {
    Impl(asio::any_io_executor executor, std::shared_ptr<ListenerDelegate> delegate,
         std::shared_ptr<ObserverHub> observed, const Options& options)
        : bus(BusConnection::open(std::move(executor), options.busAddress)),
          peers(bus, std::move(delegate), options.clientDeadline),
          host(std::make_unique<HostObject>(bus, peers)),
          signals(std::make_shared<SignalEmitter>(bus)),
          hub(std::move(observed)) {
        // Watch departures before anyone can call, so no peer is missed.
        int r = sd_bus_match_signal(bus->bus(), &ownerWatch, "org.freedesktop.DBus",
                                    "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                    "NameOwnerChanged", onNameOwnerChanged, &peers);
        if (r < 0) {
            throw BusError(kErrorFailed,
                           std::string("cannot watch the bus's peers: ") + std::strerror(-r));
        }
        r = sd_bus_request_name(bus->bus(), kServiceName, 0);
        if (r < 0) {
            sd_bus_slot_unref(ownerWatch);
            throw BusError(
                r == -EEXIST ? "org.freedesktop.DBus.Error.AddressInUse" : kErrorFailed,
                std::string("cannot take the name ") + kServiceName + ": " + std::strerror(-r));
        }
        hub->attach(signals);
    }

    ~Impl() { close(); }

    void close() {
        if (closed) {
            return;
        }
        closed = true;
        hub->detach(signals.get());
        std::promise<void> done;
        // Everything that touches the sd_bus object goes away on its strand.
        bus->post([this, &done] {
            peers.clear();
            host.reset();
            ownerWatch = sd_bus_slot_unref(ownerWatch);
            done.set_value();
        });
        done.get_future().wait();
        bus->close();
    }

    std::shared_ptr<BusConnection> bus;
    PeerTable peers;
    std::unique_ptr<HostObject> host;
    std::shared_ptr<SignalEmitter> signals;
    std::shared_ptr<ObserverHub> hub;
    sd_bus_slot* ownerWatch = nullptr;
    bool closed = false;
};

ServiceAdapter::ServiceAdapter(asio::any_io_executor executor,
                               std::shared_ptr<ListenerDelegate> delegate,
                               std::shared_ptr<ObserverHub> hub, Options options)
    : impl_(std::make_unique<Impl>(std::move(executor), std::move(delegate), std::move(hub),
                                   options)) {}

ServiceAdapter::~ServiceAdapter() = default;

void ServiceAdapter::start(std::function<void()> onLost) {
    impl_->bus->start(std::move(onLost));
}

void ServiceAdapter::close() {
    impl_->close();
}

}  // namespace skiff::service::dbus
