#pragma once
// Notices (a message code and its bytes) waiting to go out on the bus, bounded in bytes.
// A peer that reads slowly, or a phone that floods pushes, cannot grow the service: past
// the bound new notices are dropped, logged once per burst, and the ones already queued
// keep their order. The bus connection drains the queue while its own write queue is
// short, so a notice is in memory at most twice (here and in sd-bus).
//
// Threads: offer() from any thread; drain() runs on the connection's strand.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "common/bytes.hpp"
#include "service/dbus/bus_connection.hpp"

namespace skiff::service::dbus {

// Per client. Observers share one queue of half that: a slow watcher loses notices before
// the service grows for it.
inline constexpr std::size_t kNoticeQueueBytes = 16 * 1024 * 1024;
inline constexpr std::size_t kObserverQueueBytes = kNoticeQueueBytes / 2;

class NoticeQueue final : public BusConnection::Drainer,
                          public std::enable_shared_from_this<NoticeQueue> {
public:
    // Sends one notice on the strand; returns sd-bus's result.
    using Sender = std::function<int(BusConnection&, std::int64_t message, const Bytes& param)>;

    // Registers itself with `bus` as a drainer. `label` names the receiver in logs.
    static std::shared_ptr<NoticeQueue> create(std::shared_ptr<BusConnection> bus,
                                               std::string label, Sender sender,
                                               std::size_t maxBytes = kNoticeQueueBytes);

    // False when the notice was dropped because the queue is full.
    bool offer(std::int64_t message, Bytes param);
    // Drops everything queued (the receiver is gone).
    void clear();

    void drain(BusConnection& bus) override;

private:
    NoticeQueue(std::shared_ptr<BusConnection> bus, std::string label, Sender sender,
                std::size_t maxBytes);

    struct Notice {
        std::int64_t message;
        Bytes param;
    };

    std::shared_ptr<BusConnection> bus_;
    const std::string label_;
    const Sender sender_;
    const std::size_t maxBytes_;

    std::mutex mutex_;
    std::deque<Notice> queue_;
    std::size_t bytes_ = 0;
    bool dropping_ = false;   // a burst of drops has been logged
    bool scheduled_ = false;  // a drain is on its way to the strand
};

}  // namespace skiff::service::dbus
