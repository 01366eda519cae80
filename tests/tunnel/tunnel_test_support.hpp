#pragma once
// Shared pieces of the tunnel tests: a raw socket peer that speaks frames by hand, a
// transport whose writes can be made to fail, and bounded polling.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>
#include <utility>

#include "common/run_sync.hpp"
#include "tunnel/socket_tunnel_transport.hpp"
#include "tunnel/tunnel_errors.hpp"
#include "tunnel/tunnel_frame.hpp"

namespace skiff::tunnel::testing {

struct Frame {
    FrameHeader header;
    Bytes payload;
};

// The far end of a socketpair, driven with blocking calls that give up after the
// shared wait limit instead of hanging the test.
class Peer {
public:
    explicit Peer(int fd) : fd_(fd) {
        timeval limit{std::chrono::seconds(skiff::testing::kWaitLimit).count(), 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
    }
    ~Peer() { closeNow(); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    void write(const Bytes& bytes) {
        std::size_t done = 0;
        while (done < bytes.size()) {
            ssize_t n = ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (n <= 0) {
                throw std::runtime_error("peer write failed");
            }
            done += static_cast<std::size_t>(n);
        }
    }

    void writeFrame(FrameKind kind, std::uint16_t code, std::uint32_t flow,
                    const Bytes& payload = {}) {
        write(encodeFrame(kind, code, flow, payload).value());
    }

    // Reads exactly count bytes; false on end of stream before the first of them.
    bool read(Bytes& out, std::size_t count) {
        out.assign(count, 0);
        const ssize_t n = count == 0 ? 0 : ::recv(fd_, out.data(), count, MSG_WAITALL);
        if (n == 0 && count > 0) {
            return false;
        }
        if (n != static_cast<ssize_t>(count)) {
            throw std::runtime_error("peer read failed, timed out or ended inside a frame");
        }
        return true;
    }

    Frame readFrame() {
        Bytes header;
        if (!read(header, kFrameHeaderSize)) {
            throw std::runtime_error("peer saw end of stream");
        }
        Frame frame{parseFrameHeader(header), {}};
        if (!read(frame.payload, frame.header.length)) {
            throw std::runtime_error("peer saw end of stream in a payload");
        }
        return frame;
    }

    void closeNow() {
        if (fd_ >= 0) {
            ::close(fd_);
            fd_ = -1;
        }
    }

private:
    int fd_;
};

// A socket transport and the raw peer at the other end.
inline std::pair<std::shared_ptr<SocketTunnelTransport>, std::unique_ptr<Peer>> socketPair(
    asio::any_io_executor executor) {
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) {
        throw std::runtime_error("socketpair failed");
    }
    return {std::make_shared<SocketTunnelTransport>(executor, fds[0]),
            std::make_unique<Peer>(fds[1])};
}

// Passes everything through, except that writes fail while failSends is set.
class FailingSendTransport : public TunnelTransport {
public:
    explicit FailingSendTransport(std::shared_ptr<TunnelTransport> inner)
        : inner_(std::move(inner)) {}

    std::atomic<bool> failSends = false;

    asio::awaitable<void> send(Bytes head, SharedBytes tail) override {
        if (failSends) {
            throw TunnelTransportError(TunnelTransportError::Case::ioFailed);
        }
        co_await inner_->send(std::move(head), std::move(tail));
    }
    asio::awaitable<Bytes> receive(std::size_t count) override {
        co_return co_await inner_->receive(count);
    }
    asio::awaitable<void> close() override { co_await inner_->close(); }

private:
    std::shared_ptr<TunnelTransport> inner_;
};

// The case of the Error that call throws; any other outcome fails the test.
template <class Error>
typename Error::Case errorCaseOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const Error& e) {
        return e.errorCase();
    }
    throw std::runtime_error("the expected error was not thrown");
}

}  // namespace skiff::tunnel::testing
