#pragma once
// A program's session with skiffd (skiffctl, skiff-fs, tests): the bus client serving an
// AnsweringClient, whose measurement calls go back to the host through this client.
// keepRegistered() also follows skiffd on the bus: when it leaves, the owner hears so at
// once; when a skiffd takes the name again, the session registers the role with it anew
// and tells the owner, so that a restart of the service costs only the calls in between.
// Likewise when a later client takes the role: the owner hears it at once, and the session
// takes the role back when that client leaves.
//
// Threads: the bus client runs its own thread; the follower runs on a thread of the
// session's, so that the blocking registration and the owner's callback (which may make
// blocking calls too) never hold the bus thread. Destroying the session joins both.
// Ownership: non-copyable; owns the client object and the bus client.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "service/dbus/answering_client.hpp"
#include "service/dbus/harbor_client.hpp"

namespace skiff::service::dbus {

class ClientSession {
public:
    // Connects (the session bus when `busAddress` is empty) and serves the client object;
    // notifications go to `sink` or are dropped. Throws BusError.
    ClientSession(const std::string& busAddress, std::chrono::milliseconds callTimeout,
                  AnsweringClient::NotificationSink sink = nullptr);
    ~ClientSession();
    ClientSession(const ClientSession&) = delete;
    ClientSession& operator=(const ClientSession&) = delete;

    HarborClient& client() { return *client_; }

    // Called with false when skiffd leaves the bus or a later client takes the role, and
    // with true once a returning skiffd, or a role free again, accepted the role anew (a
    // refusal is logged and reported as false). Calls come one at a time from the session's
    // own thread, latest event first: events that pass while one is handled are folded.
    using PresenceHandler = std::function<void(bool registered)>;

    // Precondition: the role was registered already, and nobody else observes through
    // client() (an observer replaces the one before). Throws BusError.
    void keepRegistered(std::int64_t role, PresenceHandler onChange);

private:
    void follow();

    std::shared_ptr<AnsweringClient> self_;
    std::unique_ptr<HarborClient> client_;

    std::int64_t role_ = 0;
    PresenceHandler onChange_;
    std::mutex mutex_;
    std::condition_variable changed_;
    // What happened and is not yet handled; a later event replaces an earlier one.
    enum class Event { serviceLeft, serviceBack, displaced, roleFree };
    std::optional<Event> pending_;
    bool displaced_ = false;  // a later client holds the role
    std::string displacedBy_;
    bool stopping_ = false;
    std::thread follower_;
};

}  // namespace skiff::service::dbus
