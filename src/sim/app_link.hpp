#pragma once

// A model of the USB link between the computer and the phone, for benchmarks that should
// show what a user with a real phone sees: every answer of the companion app is held
// back by the round trip, and every byte of the framed tunnel, both ways, is paced at
// the link's rate. A model with neither set costs nothing: no timer is ever armed.

#include <asio.hpp>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>

namespace skiff::sim {

struct LinkModel {
    std::chrono::microseconds latency{0};  // a round trip: request out, answer back
    std::uint64_t bytesPerSecond = 0;      // 0: as fast as the socket goes

    bool shapes() const { return latency.count() > 0 || bytesPerSecond > 0; }
};

// "usb2" (about 1 ms and 35 MB/s) and "usb3" (about 1 ms and 350 MB/s); nothing for any
// other name.
std::optional<LinkModel> linkPreset(std::string_view name);

// The time bytes take on one direction of the link. Not thread-safe: one per direction,
// used on the app's executor.
class LinkPacer {
public:
    explicit LinkPacer(std::uint64_t bytesPerSecond) : bytesPerSecond_(bytesPerSecond) {}

    // Books the bytes after those booked before and says when the last of them is
    // through. Booking happens at the call, so calls made in order finish in order.
    std::chrono::steady_clock::time_point book(std::size_t bytes);

private:
    std::uint64_t bytesPerSecond_;
    std::chrono::steady_clock::time_point free_{};
};

// Waits on the executor until the time; returns at once for a time already past.
asio::awaitable<void> waitUntil(std::chrono::steady_clock::time_point when);

}  // namespace skiff::sim
