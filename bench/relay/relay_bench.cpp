// The relay through the whole chain (client, bus, skiffd, tunnel, simulated app) next to
// a bare bus round trip measured in the same run, and the relay's throughput for 4 MiB
// bodies over the bus (`ay`) and through a shared buffer, next to 4 MiB moved over a Unix
// socketpair in the same run. Prints figures; asserts nothing about them.
//   relay_bench [ROUND_TRIPS] [BULK_REQUESTS]

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "e2e/service_stack.hpp"
#include "relay/relay_schema.hpp"
#include "service/dbus/shared_relay.hpp"

namespace {

using Clock = std::chrono::steady_clock;
using skiff::Bytes;

struct Spread {
    double median = 0;
    double p99 = 0;
};

Spread spreadOf(std::vector<double> micros) {
    std::sort(micros.begin(), micros.end());
    const auto at = [&](double q) {
        return micros[std::min(micros.size() - 1, static_cast<std::size_t>(q * micros.size()))];
    };
    return {at(0.5), at(0.99)};
}

// Times `count` calls of `call` after a warm-up of a tenth as many.
std::vector<double> time(std::size_t count, const std::function<void()>& call) {
    for (std::size_t i = 0; i < count / 10 + 1; ++i) {
        call();
    }
    std::vector<double> micros;
    micros.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        const auto start = Clock::now();
        call();
        micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    return micros;
}

void printSpread(const char* what, const Spread& s) {
    std::printf("%-34s median %9.1f us   p99 %9.1f us\n", what, s.median, s.p99);
}

// MiB/s of `count` transfers of 4 MiB timed in microseconds, from their median.
double rateOf(const std::vector<double>& micros) {
    return 4.0 / (spreadOf(micros).median / 1e6);
}

// 4 MiB written into one end of a socketpair and read out of the other, by two threads.
void socketpairTransfer(int writer, int reader, const Bytes& body, Bytes& sink) {
    std::thread send([&] {
        std::size_t done = 0;
        while (done < body.size()) {
            const auto n = ::write(writer, body.data() + done, body.size() - done);
            if (n <= 0) {
                throw std::runtime_error("socketpair write failed");
            }
            done += static_cast<std::size_t>(n);
        }
    });
    std::size_t got = 0;
    while (got < sink.size()) {
        const auto n = ::read(reader, sink.data() + got, sink.size() - got);
        if (n <= 0) {
            throw std::runtime_error("socketpair read failed");
        }
        got += static_cast<std::size_t>(n);
    }
    send.join();
}

}  // namespace

int main(int argc, char** argv) {
    ::setenv("SKIFF_BUILD_DIR", SKIFF_BUILD_DIR_DEFAULT, 0);
    const std::size_t roundTrips = argc > 1 ? std::stoul(argv[1]) : 2000;
    const std::size_t bulkRequests = argc > 2 ? std::stoul(argv[2]) : 40;

    // The figures mean little without the load they were taken under.
    std::ifstream loadavg("/proc/loadavg");
    std::string load1, load5, load15;
    loadavg >> load1 >> load5 >> load15;
    std::printf("load average: %s %s %s\n", load1.c_str(), load5.c_str(), load15.c_str());
    try {
        skiff::test::ServiceStack stack([](const std::string& storage) {
            std::filesystem::create_directories(storage + "/Documents");
            std::ofstream(storage + "/Documents/notes.txt") << "a small file";
        });
        auto extension = skiff::test::registerWithPhone(stack, 0);
        auto& client = *extension.client;

        const Bytes lookup =
            skiff::json::encode(
                skiff::relay::RelayLookupRequest{"Documents/notes.txt",
                                                 skiff::relay::RelayLookupSource::fsGetAttributes})
                .value();
        const auto relayLookup = [&] {
            if (client.relayToUsbMux(2, lookup).status != 0) {
                throw std::runtime_error("look-up failed");
            }
        };
        const auto echo = [&] { client.echo(); };

        // Interleaved in two halves so that a change of machine load hits both alike.
        auto echoTimes = time(roundTrips / 2, echo);
        auto relayTimes = time(roundTrips / 2, relayLookup);
        auto more = time(roundTrips / 2, echo);
        echoTimes.insert(echoTimes.end(), more.begin(), more.end());
        more = time(roundTrips / 2, relayLookup);
        relayTimes.insert(relayTimes.end(), more.begin(), more.end());

        const auto echoSpread = spreadOf(echoTimes);
        const auto relaySpread = spreadOf(relayTimes);
        std::printf("round trips: %zu each\n", echoTimes.size());
        printSpread("bus Echo (client -> skiffd)", echoSpread);
        printSpread("relay look-up (-> app -> back)", relaySpread);
        std::printf("%-34s median %9.2fx        p99 %9.2fx   (goal: median <= 1.5x)\n",
                    "relay / Echo", relaySpread.median / echoSpread.median,
                    relaySpread.p99 / echoSpread.p99);

        const Bytes body(4 * 1024 * 1024, 0x5A);
        const auto overBus = time(bulkRequests, [&] {
            if (client.relayToUsbMux(0, body).status != 0) {
                throw std::runtime_error("4 MiB relay failed");
            }
        });
        skiff::service::dbus::SharedRelayBuffer shared(client);
        const auto overMemory = time(bulkRequests, [&] {
            if (shared.relay(0, body).status != 0) {
                throw std::runtime_error("4 MiB shared relay failed");
            }
        });
        int pair[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
            throw std::runtime_error("socketpair failed");
        }
        Bytes sink(body.size());
        const auto overSocket =
            time(bulkRequests, [&] { socketpairTransfer(pair[0], pair[1], body, sink); });
        ::close(pair[0]);
        ::close(pair[1]);

        std::printf("4 MiB transfers: %zu each\n", overBus.size());
        printSpread("4 MiB relay, ay (app sinks)", spreadOf(overBus));
        printSpread("4 MiB relay, shared buffer", spreadOf(overMemory));
        printSpread("4 MiB over a socketpair", spreadOf(overSocket));
        std::printf("%-34s %9.1f MiB/s\n", "relay throughput, ay", rateOf(overBus));
        std::printf("%-34s %9.1f MiB/s\n", "relay throughput, shared", rateOf(overMemory));
        std::printf("%-34s %9.1f MiB/s\n", "socketpair throughput", rateOf(overSocket));
        std::printf("%-34s %9.2fx   (goal >= 0.5x)\n", "shared relay / socketpair",
                    rateOf(overMemory) / rateOf(overSocket));

        // Another client's Echo while the phone floods the extension with 1 MiB pushes.
        const auto floodSeconds = 10;
        stack.phone().command("flood 2 1048576 " + std::to_string(floodSeconds));
        auto bystander = stack.connect();
        std::vector<double> duringFlood;
        const auto floodEnd = Clock::now() + std::chrono::seconds(floodSeconds);
        while (Clock::now() < floodEnd) {
            const auto start = Clock::now();
            bystander->echo();
            duringFlood.push_back(
                std::chrono::duration<double, std::micro>(Clock::now() - start).count());
        }
        std::printf("Echo during a push flood: %zu\n", duringFlood.size());
        printSpread("bus Echo under 1 MiB pushes", spreadOf(duringFlood));
        std::printf("%-34s %9.1f ms   (goal < 100 ms)\n", "Echo p99 under the flood",
                    spreadOf(duringFlood).p99 / 1000);
        std::printf("%-34s %9.1f MiB   (goal < 64 MiB)\n", "skiffd peak resident memory",
                    static_cast<double>(stack.service().peakResidentBytes()) / (1024 * 1024));
    } catch (const std::exception& e) {
        std::fprintf(stderr, "relay_bench: %s\n", e.what());
        return 1;
    }
    return 0;
}
