#include "service/dbus/bus_connection.hpp"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "common/log.hpp"
#include "service/dbus/bus_error.hpp"
#include "service/dbus/bus_names.hpp"

namespace skiff::service::dbus {

namespace {

// Enough to keep a busy bus moving without starving the strand's other tasks.
constexpr int kMessagesPerTurn = 64;

BusError connectError(const char* step, int r) {
    return BusError(kErrorFailed, std::string(step) + ": " + std::strerror(-r));
}

}  // namespace

std::shared_ptr<BusConnection> BusConnection::open(asio::any_io_executor executor,
                                                   const std::string& address) {
    sd_bus* bus = nullptr;
    int r = 0;
    if (address.empty()) {
        r = sd_bus_open_user(&bus);
        if (r < 0) {
            throw connectError("cannot reach the session bus", r);
        }
    } else {
        r = sd_bus_new(&bus);
        if (r < 0) {
            throw connectError("sd_bus_new", r);
        }
        if ((r = sd_bus_set_address(bus, address.c_str())) < 0 ||
            (r = sd_bus_set_bus_client(bus, 1)) < 0 || (r = sd_bus_start(bus)) < 0) {
            sd_bus_unref(bus);
            throw connectError(("cannot reach the bus at " + address).c_str(), r);
        }
    }
    std::shared_ptr<BusConnection> connection(new BusConnection(std::move(executor), bus));
    const char* unique = nullptr;
    // Waits for the bus's answer to Hello, so a dead address fails here, not later.
    if ((r = sd_bus_get_unique_name(bus, &unique)) < 0) {
        throw connectError("the bus did not accept the connection", r);
    }
    connection->uniqueName_ = unique;
    return connection;
}

BusConnection::BusConnection(asio::any_io_executor executor, sd_bus* bus)
    : strand_(asio::make_strand(executor)), bus_(bus), descriptor_(strand_), timer_(strand_) {}

BusConnection::~BusConnection() {
    if (descriptor_.is_open()) {
        // The descriptor is sd-bus's to close.
        descriptor_.release();
    }
    sd_bus_close_unref(bus_);
}

void BusConnection::start(std::function<void()> onLost) {
    post([this, onLost = std::move(onLost)]() mutable {
        onLost_ = std::move(onLost);
        started_ = true;
        const int fd = sd_bus_get_fd(bus_);
        asio::error_code ec;
        if (fd >= 0) {
            descriptor_.assign(fd, ec);
        }
        if (fd < 0 || ec) {
            log::xpc().error("bus descriptor cannot be watched");
            lost();
        }
    });
}

void BusConnection::close() {
    asio::post(strand_, [self = shared_from_this()] {
        if (self->closed_) {
            return;
        }
        self->closed_ = true;
        self->onLost_ = nullptr;
        self->timer_.cancel();
        if (self->descriptor_.is_open()) {
            self->descriptor_.cancel();
        }
        sd_bus_close(self->bus_);
    });
}

std::uint64_t BusConnection::queuedWrites() const {
    std::uint64_t count = 0;
    sd_bus_get_n_queued_write(bus_, &count);
    return count;
}

void BusConnection::addDrainer(std::weak_ptr<Drainer> drainer) {
    post([this, drainer = std::move(drainer)]() mutable {
        drainers_.push_back(std::move(drainer));
    });
}

void BusConnection::process() {
    if (closed_) {
        return;
    }
    for (int i = 0; i < kMessagesPerTurn; ++i) {
        const int r = sd_bus_process(bus_, nullptr);
        if (r < 0) {
            lost();
            return;
        }
        if (r == 0) {
            arm();
            return;
        }
    }
    asio::post(strand_, [self = shared_from_this()] { self->process(); });
}

void BusConnection::arm() {
    if (closed_) {
        return;
    }
    std::erase_if(drainers_, [this](const std::weak_ptr<Drainer>& weak) {
        auto drainer = weak.lock();
        if (drainer) {
            drainer->drain(*this);
        }
        return !drainer;
    });
    const int events = sd_bus_get_events(bus_);
    if (events < 0) {
        lost();
        return;
    }
    if (events & POLLIN) {
        waitFor(asio::posix::stream_descriptor::wait_read, readWaiting_);
    }
    if (events & POLLOUT) {
        waitFor(asio::posix::stream_descriptor::wait_write, writeWaiting_);
    }
    std::uint64_t deadline = UINT64_MAX;
    if (sd_bus_get_timeout(bus_, &deadline) < 0) {
        deadline = UINT64_MAX;
    }
    if (deadline == timerDeadline_) {
        return;
    }
    timerDeadline_ = deadline;
    if (deadline == UINT64_MAX) {
        timer_.cancel();
        return;
    }
    // sd-bus counts in CLOCK_MONOTONIC, which is steady_clock's clock here.
    timer_.expires_at(std::chrono::steady_clock::time_point(std::chrono::microseconds(deadline)));
    timer_.async_wait([self = shared_from_this(), deadline](const asio::error_code& ec) {
        if (ec) {
            return;
        }
        if (self->timerDeadline_ == deadline) {
            self->timerDeadline_ = UINT64_MAX;
        }
        self->process();
    });
}

void BusConnection::waitFor(asio::posix::stream_descriptor::wait_type what, bool& waiting) {
    if (waiting) {
        return;
    }
    waiting = true;
    descriptor_.async_wait(what, [self = shared_from_this(), &waiting](const asio::error_code& ec) {
        waiting = false;
        if (!ec) {
            self->process();
        }
    });
}

void BusConnection::lost() {
    if (closed_) {
        return;
    }
    closed_ = true;
    timer_.cancel();
    if (descriptor_.is_open()) {
        descriptor_.cancel();
    }
    log::xpc().error("bus connection lost");
    if (auto onLost = std::move(onLost_)) {
        onLost_ = nullptr;
        onLost();
    }
}

}  // namespace skiff::service::dbus
