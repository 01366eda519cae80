#pragma once
// skiffd on the bus: owns the session-bus connection, the well-known name and the host
// object, and turns bus peers into ClientConnections for the listener delegate.

#include <memory>
#include <string>

#include "service/bridge_protocols.hpp"
#include "service/dbus/bus_error.hpp"

namespace skiff::service::dbus {

class ServiceAdapter {
public:
    // Connects to the bus at `busAddress` (the session bus when empty), exports the host
    // object and takes the service name. Throws BusError, e.g. when the name is taken.
    explicit ServiceAdapter(std::shared_ptr<ListenerDelegate> delegate,
                            const std::string& busAddress = {});
    ~ServiceAdapter();
    ServiceAdapter(const ServiceAdapter&) = delete;
    ServiceAdapter& operator=(const ServiceAdapter&) = delete;

    void start();  // serves the bus on a thread of its own
    void run();    // serves the bus on the calling thread until stop()
    void stop();   // from any thread

    std::string uniqueName() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace skiff::service::dbus
