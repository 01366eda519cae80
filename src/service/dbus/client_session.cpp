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
        displaced_ = false;
        pending_ = present ? Event::serviceBack : Event::serviceLeft;
        changed_.notify_all();
    };
    // A later client of the role displaces this one; once the role is free again, this
    // one takes it back.
    observer.roleChanged = [this, self = client_->uniqueName()](std::int64_t role,
                                                                const std::string& holder,
                                                                const std::string& replaced) {
        std::lock_guard guard(mutex_);
        if (role != role_) {
            return;
        }
        if (replaced == self) {
            displaced_ = true;
            displacedBy_ = holder;
            pending_ = Event::displaced;
        } else if (displaced_ && holder.empty()) {
            displaced_ = false;
            pending_ = Event::roleFree;
        } else {
            return;
        }
        changed_.notify_all();
    };
    client_->observe(std::move(observer));
}

void ClientSession::follow() {
    for (;;) {
        Event event{};
        std::string displacedBy;
        {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [this] { return stopping_ || pending_.has_value(); });
            if (stopping_) {
                return;
            }
            event = *pending_;
            pending_.reset();
            displacedBy = displacedBy_;
        }
        if (event == Event::serviceLeft) {
            log::xpc().info("skiffd left the bus; waiting for it to come back");
            onChange_(false);
            continue;
        }
        if (event == Event::displaced) {
            log::xpc().error(
                "another client (%{public}s) took role %{public}lld; calls fail until it leaves",
                displacedBy.c_str(), static_cast<long long>(role_));
            onChange_(false);
            continue;
        }
        if (event == Event::roleFree) {
            log::xpc().info("role %{public}lld is free again; registering anew",
                            static_cast<long long>(role_));
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
