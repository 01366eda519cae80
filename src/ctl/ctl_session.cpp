#include "ctl/ctl_session.hpp"

#include <utility>

namespace skiff::ctl {

CtlSession::CtlSession(const std::string& busAddress, std::chrono::milliseconds callTimeout)
    : self_(std::make_shared<CtlClient>(
          [this](std::int64_t message, Bytes param) { deliver(message, std::move(param)); })),
      client_(std::make_unique<service::dbus::HarborClient>(self_, busAddress)) {
    client_->setCallTimeout(callTimeout);
    self_->setHostFactory([client = client_.get()](std::function<void()> onError) {
        return client->host(
            [onError = std::move(onError)](const service::dbus::BusError&) { onError(); });
    });
}

CtlSession::~CtlSession() {
    // The client object may be called until the bus thread is gone.
    self_->setHostFactory(nullptr);
    client_.reset();
}

std::vector<Notification> CtlSession::takeNotifications(std::chrono::milliseconds wait) {
    std::unique_lock lock(mutex_);
    arrived_.wait_for(lock, wait, [&] { return !notifications_.empty(); });
    std::vector<Notification> taken(std::make_move_iterator(notifications_.begin()),
                                    std::make_move_iterator(notifications_.end()));
    notifications_.clear();
    return taken;
}

void CtlSession::deliver(std::int64_t message, Bytes param) {
    std::lock_guard guard(mutex_);
    notifications_.push_back({message, std::move(param)});
    arrived_.notify_all();
}

}  // namespace skiff::ctl
