#pragma once
// A transport that reads from a fixed buffer and ends (disconnected) when it runs out;
// writes are swallowed.

#include <algorithm>
#include <span>

#include "tunnel/tunnel_errors.hpp"
#include "tunnel/tunnel_transport.hpp"

namespace skiff::tunnel {

class MemoryTransport : public TunnelTransport {
public:
    explicit MemoryTransport(std::span<const std::uint8_t> input) : input_(input) {}

    asio::awaitable<void> send(Bytes, SharedBytes) override { co_return; }

    asio::awaitable<Bytes> receive(std::size_t count) override {
        // Yield like a real read, so other tasks of the engine interleave with frames.
        co_await asio::post(co_await asio::this_coro::executor, asio::use_awaitable);
        // Checked before allocating, so a huge length in a header costs nothing.
        if (count > input_.size()) {
            input_ = {};
            throw TunnelTransportError(TunnelTransportError::Case::disconnected);
        }
        Bytes out(input_.begin(), input_.begin() + static_cast<std::ptrdiff_t>(count));
        input_ = input_.subspan(count);
        co_return out;
    }

    asio::awaitable<void> close() override {
        input_ = {};
        co_return;
    }

private:
    std::span<const std::uint8_t> input_;
};

}  // namespace skiff::tunnel
