#pragma once
// One skiffctl run's connection to the service: the client session, and, once observe() was called,
// what the bus told it that was not yet taken.
//
// Threads: the observer callbacks queue events on the client's bus thread; the command
// takes them on its own.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <variant>
#include <vector>

#include "service/dbus/client_session.hpp"
#include "service/dbus/harbor_client.hpp"

namespace skiff::ctl {

struct Notification {
    std::int64_t message = 0;
    Bytes param;
};
struct DeviceEvent {
    std::string udid;
    bool attached = false;
};
// skiffd took its name on the bus (true) or gave it up (false).
struct ServicePresence {
    bool running = false;
};
struct BusLost {};
// Any other signal, already put in words as one JSON line (a role's holder changed, a
// volume's notice).
struct EventLine {
    std::string line;
};
using WatchEvent = std::variant<Notification, DeviceEvent, ServicePresence, BusLost, EventLine>;

class CtlSession {
public:
    // Connects (the session bus when `busAddress` is empty) and serves the client object.
    // Throws service::dbus::BusError.
    CtlSession(const std::string& busAddress, std::chrono::milliseconds callTimeout);
    CtlSession(const CtlSession&) = delete;
    CtlSession& operator=(const CtlSession&) = delete;

    service::dbus::HarborClient& client() { return session_.client(); }

    // Subscribes to the service's signals, its name and the loss of the bus; returns once
    // the bus confirmed, so every event from then on is queued. Throws BusError.
    void observe();
    // Every event that arrives within `wait` (or at once when some are waiting), in order.
    std::vector<WatchEvent> takeEvents(std::chrono::milliseconds wait);

private:
    void deliver(WatchEvent event);

    std::mutex mutex_;
    std::condition_variable arrived_;
    std::deque<WatchEvent> events_;
    // Last: its bus thread, which delivers events, stops before the queue goes.
    service::dbus::ClientSession session_;
};

}  // namespace skiff::ctl
