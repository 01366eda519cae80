#include "ctl/ctl_session.hpp"

#include <utility>

namespace skiff::ctl {

CtlSession::CtlSession(const std::string& busAddress, std::chrono::milliseconds callTimeout)
    // What the service sends to skiffctl's own role is dropped: watch prints the observer
    // signals, which carry the same and need no role.
    : self_(std::make_shared<CtlClient>(nullptr)),
      client_(std::make_unique<service::dbus::HarborClient>(self_, busAddress)) {
    client_->setCallTimeout(callTimeout);
    self_->setHostFactory([client = client_.get()](std::function<void()> onError) {
        return client->host(
            [onError = std::move(onError)](const service::dbus::BusError&) { onError(); });
    });
}

CtlSession::~CtlSession() {
    // The client object and the observer may be called until the bus thread is gone.
    self_->setHostFactory(nullptr);
    client_.reset();
}

void CtlSession::observe() {
    client_->setLostHandler([this] { deliver(BusLost{}); });
    client_->observe({
        .notification =
            [this](std::int64_t message, Bytes param) {
                deliver(Notification{message, std::move(param)});
            },
        .deviceChanged =
            [this](const std::string& udid, bool attached) {
                deliver(DeviceEvent{udid, attached});
            },
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
