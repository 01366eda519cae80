#pragma once
// One skiffctl run's connection to the service: the bus client, skiffctl's own client
// object, and the notifications that have arrived but were not yet taken.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "ctl/ctl_client.hpp"
#include "service/dbus/harbor_client.hpp"

namespace skiff::ctl {

struct Notification {
    std::int64_t message = 0;
    Bytes param;
};

class CtlSession {
public:
    // Connects (the session bus when `busAddress` is empty) and serves the client object;
    // notifications are collected from this moment on. Throws service::dbus::BusError.
    CtlSession(const std::string& busAddress, std::chrono::milliseconds callTimeout);
    ~CtlSession();
    CtlSession(const CtlSession&) = delete;
    CtlSession& operator=(const CtlSession&) = delete;

    service::dbus::HarborClient& client() { return *client_; }

    // Every notification that arrives within `wait` (or at once when some are waiting).
    std::vector<Notification> takeNotifications(std::chrono::milliseconds wait);

private:
    void deliver(std::int64_t message, Bytes param);

    std::mutex mutex_;
    std::condition_variable arrived_;
    std::deque<Notification> notifications_;
    std::shared_ptr<CtlClient> self_;
    std::unique_ptr<service::dbus::HarborClient> client_;
};

}  // namespace skiff::ctl
