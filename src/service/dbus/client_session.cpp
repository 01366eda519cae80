#include "service/dbus/client_session.hpp"

#include <exception>
#include <utility>

#include "common/log.hpp"

namespace skiff::service::dbus {

ClientSession::ClientSession(const std::string& busAddress, std::chrono::milliseconds callTimeout,
                             AnsweringClient::NotificationSink sink)
    : self_(std::make_shared<AnsweringClient>(std::move(sink))),
      client_(std::make_unique<HarborClient>(self_, busAddress)) {
    client_->setCallTimeout(callTimeout);
    self_->setHostFactory([client = client_.get()](std::function<void()> onError) {
        return client->host([onError = std::move(onError)](const BusError&) { onError(); });
    });
}

ClientSession::~ClientSession() {
    {
        std::lock_guard guard(mutex_);
        stopping_ = true;
        changed_.notify_all();
    }
    if (follower_.joinable()) {
        follower_.join();
    }
    // The client object and the observer may be called until the bus thread is gone.
    self_->setHostFactory(nullptr);
    client_.reset();
}

void ClientSession::keepRegistered(std::int64_t role, PresenceHandler onChange) {
    role_ = role;
    onChange_ = std::move(onChange);
    follower_ = std::thread([this] { follow(); });
    HarborClient::Observer observer;
    observer.servicePresence = [this](bool present) {
        std::lock_guard guard(mutex_);
        present_ = present;
        changed_.notify_all();
    };
    client_->observe(std::move(observer));
}

void ClientSession::follow() {
    for (;;) {
        bool present = false;
        {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [this] { return stopping_ || present_.has_value(); });
            if (stopping_) {
                return;
            }
            present = *present_;
            present_.reset();
        }
        if (!present) {
            log::xpc().info("skiffd left the bus; waiting for it to come back");
            onChange_(false);
            continue;
        }
        bool registered = false;
        try {
            registered = client_->registerClient(role_);
        } catch (const std::exception& e) {
            log::xpc().error("registering again with skiffd failed: %{public}s", e.what());
        }
        if (registered) {
            log::xpc().info("registered again with skiffd as role %{public}lld",
                            static_cast<long long>(role_));
        } else {
            log::xpc().error("skiffd came back but refused role %{public}lld",
                             static_cast<long long>(role_));
        }
        onChange_(registered);
    }
}

}  // namespace skiff::service::dbus
