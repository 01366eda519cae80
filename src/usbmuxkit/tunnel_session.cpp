#include "usbmuxkit/tunnel_session.hpp"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "common/log.hpp"
#include "usbmuxkit/usbmux_backend.hpp"

namespace usbmuxkit {
namespace {

// A dropped connection fails every later transfer, even with bytes still buffered.
bool droppedMidway(const char* call, int32_t fd, uint32_t done, uint32_t total) {
    skiff::log::usbMuxNative().error(
        "[UsbTunnelManager] %{public}s failed: connection dropped fd=%{public}d "
        "done=%{public}u total=%{public}u",
        call, fd, done, total);
    return false;
}

}  // namespace

TunnelSession::TunnelSession(int32_t fd, std::string udid, int32_t deviceHandle, uint16_t port)
    : fd_(fd),
      lastMoved_(std::chrono::steady_clock::now().time_since_epoch().count()),
      udid_(std::move(udid)),
      deviceHandle_(deviceHandle),
      port_(port) {}

void TunnelSession::moved() {
    lastMoved_.store(std::chrono::steady_clock::now().time_since_epoch().count(),
                     std::memory_order_relaxed);
}

std::chrono::milliseconds TunnelSession::idleFor() const {
    const std::chrono::steady_clock::duration last(lastMoved_.load(std::memory_order_relaxed));
    return std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now().time_since_epoch() - last);
}

TunnelSession::~TunnelSession() {
    close();
}

void TunnelSession::close() {
    const int32_t fd = fd_.exchange(-1, std::memory_order_acq_rel);
    if (fd >= 0) {
        usbmuxBackend().disconnect(fd);
    }
}

void TunnelSession::interrupt() {
    interrupted_.store(true, std::memory_order_release);
    const int32_t fd = fd_.load(std::memory_order_acquire);
    if (fd >= 0) {
        ::shutdown(fd, SHUT_RDWR);
    }
}

bool TunnelSession::sendAll(const void* data, uint32_t length) {
    const int32_t fd = this->fd();
    if (fd < 0) {
        skiff::log::usbMuxNative().error(
            "[UsbTunnelManager] sendAll failed: invalid fd total=%{public}u", length);
        return false;
    }
    if (length == 0) {
        return !interrupted();
    }
    const char* bytes = static_cast<const char*>(data);
    uint32_t sentTotal = 0;
    for (;;) {
        if (interrupted()) {
            return droppedMidway("sendAll", fd, sentTotal, length);
        }
        const uint32_t requestChunk = std::min(length - sentTotal, kChunkSize);
        uint32_t chunk = 0;
        const int rc = usbmuxBackend().send(fd, bytes + sentTotal, requestChunk, &chunk);
        if (rc != 0 || chunk == 0) {
            skiff::log::usbMuxNative().error(
                "[UsbTunnelManager] sendAll failed fd=%{public}d rc=%{public}d chunk=%{public}u "
                "sentTotal=%{public}u total=%{public}u requestChunk=%{public}u",
                fd, rc, chunk, sentTotal, length, requestChunk);
            return false;
        }
        // A short write is fine: the next request carries the rest.
        moved();
        sentTotal += chunk;
        if (sentTotal >= length) {
            return true;
        }
    }
}

bool TunnelSession::recvAll(void* buffer, uint32_t length) {
    const int32_t fd = this->fd();
    if (fd < 0) {
        skiff::log::usbMuxNative().error(
            "[UsbTunnelManager] recvAll failed: invalid fd total=%{public}u", length);
        return false;
    }
    if (length == 0) {
        return !interrupted();
    }
    char* bytes = static_cast<char*>(buffer);
    uint32_t recvTotal = 0;
    for (;;) {
        if (interrupted()) {
            return droppedMidway("recvAll", fd, recvTotal, length);
        }
        const uint32_t requestChunk = std::min(length - recvTotal, kChunkSize);
        uint32_t got = 0;
        const int st = usbmuxBackend().recv(fd, bytes + recvTotal, requestChunk, &got);
        if (st == 0 && got > 0) {
            moved();
            recvTotal += got;
        } else if (st == -ETIMEDOUT && got == 0) {
            // A silent but open peer: keep waiting, one library time-out at a time.
            continue;
        } else {
            skiff::log::usbMuxNative().error(
                "[UsbTunnelManager] recvAll failed fd=%{public}d st=%{public}d got=%{public}u "
                "recvTotal=%{public}u total=%{public}u requestChunk=%{public}u",
                fd, st, got, recvTotal, length, requestChunk);
            return false;
        }
        if (recvTotal >= length) {
            return true;
        }
    }
}

bool TunnelSession::readLine(std::string& line) {
    const int32_t fd = this->fd();
    if (fd < 0) {
        return false;
    }
    line.clear();
    for (;;) {
        if (interrupted()) {
            return false;
        }
        char byte = 0;
        uint32_t got = 0;
        // One byte per call: payload bytes may follow the line directly.
        if (usbmuxBackend().recv(fd, &byte, 1, &got) != 0 || got != 1) {
            return false;
        }
        moved();
        if (byte != '\n') {
            line.push_back(byte);
            continue;
        }
        while (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        return true;
    }
}

}  // namespace usbmuxkit
