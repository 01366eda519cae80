#include "service/dbus/bus_loop.hpp"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/log.hpp"
#include "service/dbus/bus_error.hpp"

namespace skiff::service::dbus {

BusLoop::BusLoop(const std::string& address) {
    try {
        connection_ = address.empty() ? sdbus::createSessionBusConnection()
                                      : sdbus::createSessionBusConnectionWithAddress(address);
    } catch (const sdbus::Error& e) {
        throw BusError(e.getName(), e.getMessage());
    }
    wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wakeFd_ < 0) {
        throw BusError("org.freedesktop.DBus.Error.Failed",
                       std::string("eventfd: ") + std::strerror(errno));
    }
}

BusLoop::~BusLoop() {
    stop();
    if (thread_.joinable()) {
        // Only when the last owner let go on the loop thread itself, which is ending.
        thread_.detach();
    }
    // Queued work may hold messages of this connection: release them before it closes.
    std::deque<std::function<void()>> dropped;
    {
        std::lock_guard guard(mutex_);
        dropped.swap(posted_);
    }
    dropped.clear();
    ::close(wakeFd_);
}

void BusLoop::start() {
    stopping_ = false;
    thread_ = std::thread([this] { loop(); });
}

void BusLoop::run() {
    stopping_ = false;
    loop();
}

void BusLoop::stop() {
    stopping_ = true;
    wake();
    if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) {
        thread_.join();
    }
}

bool BusLoop::inLoopThread() const {
    return loopThread_.load() == std::this_thread::get_id();
}

void BusLoop::post(std::function<void()> task) {
    if (inLoopThread()) {
        task();
        return;
    }
    {
        std::lock_guard guard(mutex_);
        posted_.push_back(std::move(task));
    }
    wake();
}

void BusLoop::wake() {
    const std::uint64_t one = 1;
    // A full counter already means "wake up"; nothing else can go wrong here.
    [[maybe_unused]] auto written = ::write(wakeFd_, &one, sizeof one);
}

void BusLoop::runPosted() {
    std::deque<std::function<void()>> batch;
    {
        std::lock_guard guard(mutex_);
        batch.swap(posted_);
    }
    for (auto& task : batch) {
        task();
    }
}

void BusLoop::loop() {
    loopThread_ = std::this_thread::get_id();
    try {
        while (!stopping_) {
            runPosted();
            if (connection_->processPendingRequest()) {
                continue;
            }
            const auto data = connection_->getEventLoopPollData();
            pollfd fds[2] = {{data.fd, data.events, 0}, {wakeFd_, POLLIN, 0}};
            if (::poll(fds, 2, data.getPollTimeout()) < 0 && errno != EINTR) {
                log::xpc().error("bus loop poll failed: %{public}s", std::strerror(errno));
                break;
            }
            if (fds[1].revents & POLLIN) {
                std::uint64_t count = 0;
                [[maybe_unused]] auto got = ::read(wakeFd_, &count, sizeof count);
            }
        }
    } catch (const sdbus::Error& e) {
        log::xpc().error("bus connection lost: %{public}s", e.what());
    }
    loopThread_ = std::thread::id{};
}

}  // namespace skiff::service::dbus
