#include "ctl/ctl_session.hpp"

#include <utility>

#include "ctl/notification_line.hpp"

namespace skiff::ctl {

CtlSession::CtlSession(const std::string& busAddress, std::chrono::milliseconds callTimeout)
    // What the service sends to skiffctl's own role is dropped: watch prints the observer
    // signals, which carry the same and need no role.
    : session_(busAddress, callTimeout) {}

void CtlSession::observe() {
    client().setLostHandler([this] { deliver(BusLost{}); });
    client().observe({
        .notification =
            [this](std::int64_t message, Bytes param) {
                deliver(Notification{message, std::move(param)});
            },
        .deviceChanged =
            [this](const std::string& udid, bool attached) {
                deliver(DeviceEvent{udid, attached});
            },
        .roleChanged =
            [this](std::int64_t role, const std::string& holder, const std::string& replaced) {
                deliver(EventLine{roleLine(role, holder, replaced)});
            },
        .volumeNotice = [this](const std::string& text) { deliver(EventLine{noticeLine(text)}); },
        .servicePresence = [this](bool running) { deliver(ServicePresence{running}); },
    });
}

std::vector<WatchEvent> CtlSession::takeEvents(std::chrono::milliseconds wait) {
    std::unique_lock lock(mutex_);
    arrived_.wait_for(lock, wait, [&] { return !events_.empty(); });
    std::vector<WatchEvent> taken(std::make_move_iterator(events_.begin()),
                                  std::make_move_iterator(events_.end()));
    events_.clear();
    return taken;
}

void CtlSession::deliver(WatchEvent event) {
    std::lock_guard guard(mutex_);
    events_.push_back(std::move(event));
    arrived_.notify_all();
}

}  // namespace skiff::ctl
