#include "usbmuxkit/measurement.hpp"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <sstream>
#include <vector>

#include "usbmuxkit/usb_tunnel_manager.hpp"

namespace usbmuxkit {
namespace {

using Clock = std::chrono::steady_clock;

double nanosecondsBetween(Clock::time_point t0, Clock::time_point t1) {
    return static_cast<double>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(t1 - t0).count());
}

uint32_t pieceOf(uint64_t remaining) {
    return static_cast<uint32_t>(std::min<uint64_t>(remaining, TunnelSession::kChunkSize));
}

}  // namespace

std::string measurementHeader(const char* prefix, uint64_t bytes) {
    return std::string(prefix) + std::to_string(bytes) + "\r\n";
}

std::string throughputLine(uint64_t bytes, double seconds) {
    if (seconds <= 0) {
        return "带宽: （计时不合法）\n";
    }
    const double n = static_cast<double>(bytes);
    std::ostringstream out;
    out << "字节数: " << bytes << " 用时: " << seconds << " s"
        << "  ≈ " << n / (seconds * 1024 * 1024) << " MiB/s, " << n * 8 / (seconds * 1000000)
        << " Mbit/s\n";
    return out.str();
}

bool UsbTunnelManager::runPing(TunnelSession& session, double* rttMs) {
    static constexpr char kPing[] = "PING\r\n";
    const auto t0 = Clock::now();
    if (!session.sendAll(kPing, sizeof kPing - 1)) {
        return false;
    }
    std::string line;
    if (!session.readLine(line)) {
        return false;
    }
    const double ms = nanosecondsBetween(t0, Clock::now()) / 1000000;
    if (rttMs != nullptr) {
        *rttMs = ms;
    }
    // Any reply line completes the ping; only the wording differs.
    if (line == "PONG") {
        std::cout << "往返延时 (RTT): " << ms << " ms\n";
    } else {
        std::cout << "RTT 收到非预期行: \"" << line << "\" （仍报告耗时 " << ms << " ms)\n";
    }
    std::cout.flush();
    return true;
}

bool UsbTunnelManager::runDownloadTest(TunnelSession& session, uint64_t bytes, double* seconds) {
    const std::string header = measurementHeader("BW:DOWN:", bytes);
    // The time includes the header and the acknowledgement's round trip.
    const auto t0 = Clock::now();
    if (!session.sendAll(header.data(), static_cast<uint32_t>(header.size()))) {
        std::cerr << "BW:DOWN header 发送失败\n";
        return false;
    }
    const std::vector<char> payload(TunnelSession::kChunkSize, static_cast<char>(0xA5));
    for (uint64_t remaining = bytes; remaining > 0;) {
        const uint32_t piece = pieceOf(remaining);
        if (!session.sendAll(payload.data(), piece)) {
            std::cerr << "BW:DOWN payload 发送失败\n";
            return false;
        }
        remaining -= piece;
    }
    std::string line;
    if (!session.readLine(line)) {
        std::cerr << "读取 BW:DOWN 确认失败\n";
        return false;
    }
    const auto t1 = Clock::now();
    if (!line.starts_with("BW:DOWN:OK:")) {
        std::cerr << "意外 ACK: " << line << "\n";
        return false;
    }
    const double elapsed = nanosecondsBetween(t0, t1) / 1000000000;
    if (seconds != nullptr) {
        *seconds = elapsed;
    }
    std::cout << "下行带宽 Mac → iPhone (USBMUX): " << throughputLine(bytes, elapsed);
    std::cout.flush();
    return true;
}

bool UsbTunnelManager::runUploadTest(TunnelSession& session, uint64_t bytes, double* seconds) {
    const std::string header = measurementHeader("BW:UP:", bytes);
    if (!session.sendAll(header.data(), static_cast<uint32_t>(header.size()))) {
        std::cerr << "BW:UP header 发送失败\n";
        return false;
    }
    std::vector<char> buffer(TunnelSession::kChunkSize);
    // Timed from after the header, unlike the download.
    const auto t0 = Clock::now();
    for (uint64_t remaining = bytes; remaining > 0;) {
        const uint32_t piece = pieceOf(remaining);
        if (!session.recvAll(buffer.data(), piece)) {
            std::cerr << "BW:UP 接收 payload 失败\n";
            return false;
        }
        remaining -= piece;
    }
    const double elapsed = nanosecondsBetween(t0, Clock::now()) / 1000000000;
    if (seconds != nullptr) {
        *seconds = elapsed;
    }
    std::cout << "上行带宽 iPhone → Mac (USBMUX): " << throughputLine(bytes, elapsed);
    std::cout.flush();
    return true;
}

}  // namespace usbmuxkit
