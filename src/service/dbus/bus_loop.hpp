#pragma once
// One bus connection and the thread that serves it. Every sdbus-c++ call after start-up
// runs on that thread: other threads hand work over with post(), which also wakes the
// loop so that a long reply queued by sd-bus gets written out instead of waiting for the
// next incoming message.

#include <sdbus-c++/sdbus-c++.h>

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace skiff::service::dbus {

class BusLoop {
public:
    // Connects to the bus at `address`, or to the session bus when it is empty.
    // Throws BusError when the bus cannot be reached.
    explicit BusLoop(const std::string& address);
    ~BusLoop();
    BusLoop(const BusLoop&) = delete;
    BusLoop& operator=(const BusLoop&) = delete;

    sdbus::IConnection& connection() { return *connection_; }

    void start();  // serves the bus on a thread of its own
    void run();    // serves the bus on the calling thread until stop()
    void stop();   // from any thread; waits for the loop thread started by start()

    // Runs `task` on the loop thread: at once when called there, otherwise queued.
    // Tasks queued after the loop has stopped are dropped with the loop.
    void post(std::function<void()> task);
    bool inLoopThread() const;

private:
    void loop();
    void runPosted();
    void wake();

    std::unique_ptr<sdbus::IConnection> connection_;
    int wakeFd_ = -1;
    std::atomic<bool> stopping_{false};
    std::atomic<std::thread::id> loopThread_{};
    std::thread thread_;
    std::mutex mutex_;
    std::deque<std::function<void()>> posted_;
};

}  // namespace skiff::service::dbus
