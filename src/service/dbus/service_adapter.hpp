#pragma once
// skiffd on the bus: owns the session-bus connection, the well-known name and the host
// object, turns bus peers into ClientConnections for the listener delegate, and emits the
// observer signals. The connection runs on the service's io_context (no thread of its own).
//
// Lifetime: construct, start(), and close() (or destroy) while the io_context still runs:
// closing waits for the strand to let go of the connection. The signals are attached to the
// hub at construction and detached first thing in close(), so nothing reaches a closing bus.

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include <asio.hpp>

#include "common/bridge_protocols.hpp"
#include "service/dbus/bus_error.hpp"

namespace skiff::service::dbus {

class ServiceAdapter {
public:
    struct Options {
        std::string busAddress;  // the session bus when empty
        // How long a call to a client may take before the waiting host call gives up.
        std::chrono::milliseconds clientDeadline = std::chrono::seconds(25);
    };

    // Connects, exports the host object, takes the service name and attaches the observer
    // signals to `hub`. Throws BusError, e.g. when the name is taken (nothing is attached).
    ServiceAdapter(asio::any_io_executor executor, std::shared_ptr<ListenerDelegate> delegate,
                   std::shared_ptr<ObserverHub> hub, Options options);
    ~ServiceAdapter();
    ServiceAdapter(const ServiceAdapter&) = delete;
    ServiceAdapter& operator=(const ServiceAdapter&) = delete;

    // Starts serving. `onLost` runs once, on an io_context thread, if the bus connection
    // is lost; a service must not stay half alive after that.
    void start(std::function<void()> onLost);

    // Stops serving and waits until the connection has closed. From any thread but the
    // io_context's own.
    void close();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace skiff::service::dbus
