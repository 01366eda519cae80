// Prints figures measured through the simulated phone and the real libusbmuxd:
//   speedtest_bench [MiB]   (payload of the speed test and the raw transfer, default 32)

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "common/io_runtime.hpp"
#include "sim/sim_phone.hpp"
#include "support/simulated_phone.hpp"
#include "tunnel/tunnel_engine.hpp"
#include "tunnel/usbmux_tunnel_transport.hpp"
#include "usbmuxkit/service/usbmux_service.hpp"

using namespace skiff;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::uint32_t kPiece = 262144;

tunnel_id firstDevice(std::uint16_t port) {
    tunnel_id id{};
    id.port = port;
    return id;
}

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double mibPerSecond(std::uint64_t bytes, double seconds) {
    return seconds > 0 ? static_cast<double>(bytes) / (seconds * 1024 * 1024) : 0;
}

asio::awaitable<void> sequentialRequests(std::shared_ptr<tunnel::TunnelEngine> engine, int count) {
    for (int i = 0; i < count; ++i) {
        co_await engine->request(0, {});
    }
}

// Request/response round trips per second, one at a time and with several in flight.
void roundTrips(runtime::IoRuntime& runtime) {
    if (!usbmux_tunnel_ensure(firstDevice(sim::kCompanionAppPort))) {
        throw std::runtime_error("no tunnel to the app");
    }
    auto transport =
        std::make_shared<tunnel::UsbMuxTunnelTransport>(firstDevice(sim::kCompanionAppPort));
    auto engine = std::make_shared<tunnel::TunnelEngine>(runtime.executor());
    tunnel::TunnelBinding binding;
    binding.transport = transport;
    asio::co_spawn(runtime.executor(), engine->bind(std::move(binding)), asio::use_future).get();
    asio::co_spawn(runtime.executor(), sequentialRequests(engine, 100), asio::use_future).get();

    for (int inFlight : {1, 8}) {
        const int perCaller = 4000 / inFlight;
        std::vector<std::future<void>> callers;
        auto start = Clock::now();
        for (int i = 0; i < inFlight; ++i) {
            callers.push_back(asio::co_spawn(
                runtime.executor(), sequentialRequests(engine, perCaller), asio::use_future));
        }
        for (auto& caller : callers) {
            caller.get();
        }
        double seconds = secondsSince(start);
        std::printf("engine round trips, %d in flight: %.0f per second (%d in %.3f s)\n", inFlight,
                    perCaller * inFlight / seconds, perCaller * inFlight, seconds);
    }
    asio::co_spawn(runtime.executor(), engine->unbind(), asio::use_future).get();
    asio::co_spawn(runtime.executor(), transport->close(), asio::use_future).get();
}

// Plain sends through the echo app while a second thread takes the bytes back.
double rawSeconds(std::uint64_t bytes) {
    const tunnel_id id = firstDevice(sim::kEchoPort);
    usbmux_tunnel_conn* conn = usbmux_tunnel_conn_open(id);
    if (conn == nullptr) {
        throw std::runtime_error("no tunnel to the echo app");
    }
    std::vector<std::uint8_t> out(kPiece, 0xA5);
    auto start = Clock::now();
    auto receiver = std::async(std::launch::async, [conn, bytes] {
        std::vector<std::uint8_t> in(kPiece);
        for (std::uint64_t left = bytes; left > 0;) {
            auto n = static_cast<std::uint32_t>(std::min<std::uint64_t>(left, kPiece));
            if (!usbmux_tunnel_conn_recv(conn, in.data(), n)) {
                return false;
            }
            left -= n;
        }
        return true;
    });
    bool sent = true;
    for (std::uint64_t left = bytes; left > 0 && sent;) {
        auto n = static_cast<std::uint32_t>(std::min<std::uint64_t>(left, kPiece));
        sent = usbmux_tunnel_conn_send(conn, out.data(), n);
        left -= n;
    }
    if (!sent) {
        usbmux_tunnel_conn_invalidate(conn);  // wakes the receiver
    }
    const bool received = receiver.get();
    usbmux_tunnel_conn_release(conn);
    if (!received || !sent) {
        throw std::runtime_error("the raw transfer failed");
    }
    return secondsSince(start);
}

}  // namespace

int main(int argc, char** argv) {
    const std::uint64_t mib = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 32;
    const std::uint64_t bytes = mib * 1024 * 1024;
    ::setenv("SKIFF_BUILD_DIR", SKIFF_BUILD_TREE, 0);
    try {
        test::SimulatedPhone phone({"bench-phone"});
        runtime::IoRuntime runtime(2);
        runtime.start();
        usbmuxkit::UsbMuxService service(runtime.executor());
        asio::co_spawn(runtime.executor(), service.start(), asio::use_future).get();

        roundTrips(runtime);

        auto round = asio::co_spawn(runtime.executor(),
                                    service.runSpeedTestRound(sim::kCompanionAppPort, bytes),
                                    asio::use_future)
                         .get();
        const double raw = mibPerSecond(bytes, rawSeconds(bytes));
        std::printf("speed test, %llu MiB: ping %.3f ms, download %.1f MiB/s, upload %.1f MiB/s\n",
                    static_cast<unsigned long long>(mib), round.pingMs,
                    round.download.mibPerSecond(), round.upload.mibPerSecond());
        std::printf("raw tunnel (echo, send and receive at once): %.1f MiB/s\n", raw);
        std::printf("speed test / raw: download %.2f, upload %.2f\n",
                    raw > 0 ? round.download.mibPerSecond() / raw : 0,
                    raw > 0 ? round.upload.mibPerSecond() / raw : 0);
        asio::co_spawn(runtime.executor(), service.shutdown(), asio::use_future).get();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "speedtest_bench: %s\n", e.what());
        return 1;
    }
    return 0;
}
