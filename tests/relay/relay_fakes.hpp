#pragma once
// A tunnel opener over socket pairs: each open hands the bridge a fresh transport and
// keeps the raw peer for the test, and every open and invalidation is logged in order.

#include <asio.hpp>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "relay/tunnel_opener.hpp"
#include "tunnel/tunnel_test_support.hpp"

namespace skiff::relay::testing {

class FakeOpener : public TunnelOpener {
public:
    explicit FakeOpener(asio::any_io_executor executor) : executor_(std::move(executor)) {}

    asio::awaitable<std::shared_ptr<tunnel::TunnelTransport>> open(std::uint16_t port) override {
        std::lock_guard guard(mutex_);
        events_.push_back("open " + std::to_string(port));
        if (failOpen) {
            co_return nullptr;
        }
        auto [transport, peer] = tunnel::testing::socketPair(executor_);
        peers_.push_back(std::move(peer));
        co_return transport;
    }

    asio::awaitable<void> invalidate(std::uint16_t port) override {
        std::lock_guard guard(mutex_);
        events_.push_back("invalidate " + std::to_string(port));
        co_return;
    }

    std::vector<std::string> events() const {
        std::lock_guard guard(mutex_);
        return events_;
    }

    // The far end of the index-th tunnel, once it has been opened.
    tunnel::testing::Peer& peer(std::size_t index) {
        if (!skiff::testing::eventually([&] {
                std::lock_guard guard(mutex_);
                return peers_.size() > index;
            })) {
            throw std::runtime_error("tunnel was never opened");
        }
        std::lock_guard guard(mutex_);
        return *peers_[index];
    }

    // Reads one request on the index-th tunnel and answers it.
    Bytes answer(std::size_t index, std::uint16_t code, const Bytes& payload) {
        auto& far = peer(index);
        auto request = far.readFrame();
        far.writeFrame(tunnel::FrameKind::response, code, request.header.flow, payload);
        return request.payload;
    }

    bool failOpen = false;

private:
    asio::any_io_executor executor_;
    mutable std::mutex mutex_;
    std::vector<std::string> events_;
    std::vector<std::unique_ptr<tunnel::testing::Peer>> peers_;
};

}  // namespace skiff::relay::testing
