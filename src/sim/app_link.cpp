#include "sim/app_link.hpp"

#include <algorithm>

namespace skiff::sim {

std::optional<LinkModel> linkPreset(std::string_view name) {
    using std::chrono::milliseconds;
    if (name == "usb2") {
        return LinkModel{milliseconds(1), 35'000'000};
    }
    if (name == "usb3") {
        return LinkModel{milliseconds(1), 350'000'000};
    }
    return std::nullopt;
}

std::chrono::steady_clock::time_point LinkPacer::book(std::size_t bytes) {
    const auto now = std::chrono::steady_clock::now();
    if (bytesPerSecond_ == 0) {
        return now;
    }
    // A link left idle does not save up time for a later burst.
    const auto start = std::max(now, free_);
    const auto took = std::chrono::nanoseconds(static_cast<std::int64_t>(
        static_cast<double>(bytes) * 1e9 / static_cast<double>(bytesPerSecond_)));
    free_ = start + took;
    return free_;
}

asio::awaitable<void> waitUntil(std::chrono::steady_clock::time_point when) {
    if (when <= std::chrono::steady_clock::now()) {
        co_return;
    }
    asio::steady_timer timer(co_await asio::this_coro::executor, when);
    std::error_code ignored;
    co_await timer.async_wait(asio::redirect_error(asio::use_awaitable, ignored));
}

}  // namespace skiff::sim
