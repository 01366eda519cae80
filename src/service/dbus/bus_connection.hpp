#pragma once
// One sd-bus connection driven by an asio executor: a strand owns the sd_bus object, its
// descriptor is watched by the reactor and its time-outs by a timer, so the bus needs no
// thread of its own and every sd-bus callback (method handlers, replies, signal matches)
// runs on that strand.
//
// Threads: bus() and everything sd-bus hands out may be used on the strand only. post()
// may be called from any thread; the task runs on the strand, after which the watcher
// re-reads what sd-bus waits for (a reply queued by the task gets written out at once).
// Ownership: held by shared_ptr; every pending wait holds one, so the object lives
// until close() has run and the waits have ended, or its executor has stopped.

#include <systemd/sd-bus.h>

#include <asio.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace skiff::service::dbus {

class BusConnection : public std::enable_shared_from_this<BusConnection> {
public:
    // Something that sends when the write queue has room (a bounded notification queue).
    class Drainer {
    public:
        virtual ~Drainer() = default;
        virtual void drain(BusConnection& bus) = 0;
    };

    // Connects to the bus at `address`, or to the session bus when it is empty, and says
    // Hello (blocking, before any wait starts). Throws BusError when the bus cannot be
    // reached.
    static std::shared_ptr<BusConnection> open(asio::any_io_executor executor,
                                               const std::string& address);
    ~BusConnection();
    BusConnection(const BusConnection&) = delete;
    BusConnection& operator=(const BusConnection&) = delete;

    const std::string& uniqueName() const { return uniqueName_; }
    const asio::strand<asio::any_io_executor>& strand() const { return strand_; }
    bool inStrand() const { return strand_.running_in_this_thread(); }
    sd_bus* bus() const { return bus_; }

    // Starts watching the connection. `onLost` runs once, on the strand, when the
    // connection is lost (never after close()).
    void start(std::function<void()> onLost);

    // Runs `task` (any callable, move-only too) on the strand.
    template <class Task>
    void post(Task task) {
        asio::post(strand_, [self = shared_from_this(), task = std::move(task)]() mutable {
            task();
            if (self->started_) {
                self->arm();
            }
        });
    }

    // Closes the connection on the strand: waits end, queued messages are flushed as far
    // as the socket takes them. Safe to call twice and from any thread.
    void close();

    // How many messages sd-bus holds unsent; drainers keep this small.
    std::uint64_t queuedWrites() const;
    // Drainers are asked to send, on the strand, each time the watcher re-arms.
    void addDrainer(std::weak_ptr<Drainer> drainer);

private:
    BusConnection(asio::any_io_executor executor, sd_bus* bus);

    void process();
    void arm();
    // One wait of each kind at a time; `waiting` is its flag.
    void waitFor(asio::posix::stream_descriptor::wait_type what, bool& waiting);
    void lost();

    asio::strand<asio::any_io_executor> strand_;
    sd_bus* bus_;
    std::string uniqueName_;
    asio::posix::stream_descriptor descriptor_;
    asio::steady_timer timer_;
    std::uint64_t timerDeadline_ = UINT64_MAX;
    bool readWaiting_ = false;
    bool writeWaiting_ = false;
    bool closed_ = false;
    bool started_ = false;
    std::function<void()> onLost_;
    std::vector<std::weak_ptr<Drainer>> drainers_;
};

}  // namespace skiff::service::dbus
