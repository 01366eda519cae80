#include <algorithm>
#include <charconv>
#include <cstdio>
#include <vector>

#include "sim/app_state.hpp"

namespace skiff::sim {
namespace {

constexpr size_t kMaxLine = 4096;
constexpr size_t kChunk = 262144;
constexpr std::uint8_t kDownloadByte = 0xA5;
constexpr std::uint8_t kUploadByte = 0x5A;

// Shows every byte: CR, LF and backslash escaped, other controls as \xNN.
std::string escaped(std::string_view raw) {
    std::string out;
    for (unsigned char c : raw) {
        if (c == '\r') {
            out += "\\r";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\\') {
            out += "\\\\";
        } else if (c < 0x20 || c >= 0x7F) {
            char hex[5];
            std::snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

std::optional<std::uint64_t> countAfter(std::string_view line, std::string_view prefix) {
    if (!line.starts_with(prefix)) {
        return std::nullopt;
    }
    std::string_view digits = line.substr(prefix.size());
    std::uint64_t value = 0;
    auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (digits.empty() || error != std::errc() || end != digits.data() + digits.size()) {
        return std::nullopt;
    }
    return value;
}

asio::awaitable<void> writeLine(AppSocket& socket, std::string line) {
    line += "\r\n";
    co_await asio::async_write(socket, asio::buffer(line), asio::use_awaitable);
}

// Reads count bytes, the buffered ones first; returns how many were not 0xA5.
asio::awaitable<std::uint64_t> readDownload(AppSocket& socket, std::string& pending,
                                            std::uint64_t count) {
    std::uint64_t others = 0;
    auto tally = [&](const auto* data, size_t n) {
        others += n - std::count(data, data + n, static_cast<char>(kDownloadByte));
    };
    size_t buffered = static_cast<size_t>(std::min<std::uint64_t>(count, pending.size()));
    tally(pending.data(), buffered);
    pending.erase(0, buffered);
    count -= buffered;
    std::vector<char> chunk(kChunk);
    while (count > 0) {
        size_t want = static_cast<size_t>(std::min<std::uint64_t>(count, kChunk));
        size_t n =
            co_await socket.async_read_some(asio::buffer(chunk.data(), want), asio::use_awaitable);
        tally(chunk.data(), n);
        count -= n;
    }
    co_return others;
}

asio::awaitable<void> writeUpload(AppSocket& socket, std::uint64_t count) {
    std::vector<std::uint8_t> chunk(kChunk, kUploadByte);
    while (count > 0) {
        size_t n = static_cast<size_t>(std::min<std::uint64_t>(count, kChunk));
        co_await asio::async_write(socket, asio::buffer(chunk.data(), n), asio::use_awaitable);
        count -= n;
    }
}

}  // namespace

asio::awaitable<void> serveMeasurement(std::shared_ptr<CompanionApp::State> state,
                                       std::shared_ptr<AppSocket> socket, std::string pending) {
    try {
        for (;;) {
            size_t n = co_await asio::async_read_until(
                *socket, asio::dynamic_buffer(pending, kMaxLine), '\n', asio::use_awaitable);
            std::string raw = pending.substr(0, n);
            pending.erase(0, n);
            state->record("line " + escaped(raw));
            std::string_view line(raw);
            line.remove_suffix(1);
            while (line.ends_with('\r')) {
                line.remove_suffix(1);
            }
            if (state->faults.closeOnRequest) {
                break;
            }
            if (line == "PING") {
                if (state->faults.delay.count() > 0) {
                    co_await pause(std::make_shared<asio::steady_timer>(state->executor),
                                   state->faults.delay);
                }
                co_await writeLine(*socket, state->faults.pongLine.value_or("PONG"));
            } else if (auto down = countAfter(line, "BW:DOWN:")) {
                std::uint64_t others = co_await readDownload(*socket, pending, *down);
                state->record("payload " + std::to_string(*down) + " bytes, " +
                              std::to_string(others) + " not a5");
                co_await writeLine(*socket, state->faults.downloadAck.value_or(
                                                "BW:DOWN:OK:" + std::to_string(*down)));
            } else if (auto up = countAfter(line, "BW:UP:")) {
                co_await writeUpload(*socket, *up);
            }
        }
    } catch (const std::system_error&) {
        // Peer gone, or a line over the limit.
    }
    std::error_code ignored;
    socket->shutdown(asio::socket_base::shutdown_both, ignored);
    socket->close(ignored);
    state->record("closed");
}

}  // namespace skiff::sim
