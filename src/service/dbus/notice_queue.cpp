#include "service/dbus/notice_queue.hpp"

#include <cstring>
#include <utility>

#include "common/log.hpp"

namespace skiff::service::dbus {

namespace {
// sd-bus's own unsent messages allowed before draining waits for the socket.
constexpr std::uint64_t kMaxQueuedWrites = 1;
}  // namespace

std::shared_ptr<NoticeQueue> NoticeQueue::create(std::shared_ptr<BusConnection> bus,
                                                 std::string label, Sender sender,
                                                 std::size_t maxBytes) {
    std::shared_ptr<NoticeQueue> queue(
        new NoticeQueue(bus, std::move(label), std::move(sender), maxBytes));
    bus->addDrainer(queue);
    return queue;
}

NoticeQueue::NoticeQueue(std::shared_ptr<BusConnection> bus, std::string label, Sender sender,
                         std::size_t maxBytes)
    : bus_(std::move(bus)),
      label_(std::move(label)),
      sender_(std::move(sender)),
      maxBytes_(maxBytes) {}

bool NoticeQueue::offer(std::int64_t message, Bytes param) {
    bool schedule = false;
    {
        std::lock_guard guard(mutex_);
        if (bytes_ + param.size() > maxBytes_) {
            if (!dropping_) {
                dropping_ = true;
                log::xpc().error("notifications for %{public}s dropped: %{public}zu bytes queued",
                                 label_.c_str(), bytes_);
            }
            return false;
        }
        bytes_ += param.size();
        queue_.push_back({message, std::move(param)});
        schedule = !std::exchange(scheduled_, true);
    }
    if (schedule) {
        // The drain itself runs when the connection re-arms after this empty task.
        bus_->post([] {});
    }
    return true;
}

void NoticeQueue::clear() {
    std::deque<Notice> dropped;
    std::lock_guard guard(mutex_);
    dropped.swap(queue_);
    bytes_ = 0;
}

void NoticeQueue::drain(BusConnection& bus) {
    std::unique_lock lock(mutex_);
    scheduled_ = false;
    while (!queue_.empty() && bus.queuedWrites() < kMaxQueuedWrites) {
        Notice notice = std::move(queue_.front());
        queue_.pop_front();
        bytes_ -= notice.param.size();
        lock.unlock();
        const int r = sender_(bus, notice.message, notice.param);
        if (r < 0) {
            log::xpc().error("notification for %{public}s not sent: %{public}s", label_.c_str(),
                             std::strerror(-r));
        }
        lock.lock();
    }
    if (queue_.empty() && dropping_) {
        dropping_ = false;
        log::xpc().info("notifications for %{public}s flowing again", label_.c_str());
    }
}

}  // namespace skiff::service::dbus
