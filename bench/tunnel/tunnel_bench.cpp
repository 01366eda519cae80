// Frame encode/parse throughput, and request/response round trips between a client
// engine and a server engine over a socketpair.

#include <benchmark/benchmark.h>
#include <sys/socket.h>

#include <future>
#include <stdexcept>

#include "common/io_runtime.hpp"
#include "tunnel/socket_tunnel_transport.hpp"
#include "tunnel/tunnel_engine.hpp"

using namespace skiff;
using namespace skiff::tunnel;

static void BM_EncodeFrame(benchmark::State& state) {
    Bytes payload(static_cast<std::size_t>(state.range(0)), 0x42);
    std::uint32_t flow = 1;
    for (auto _ : state) {
        auto frame = encodeFrame(FrameKind::request, 7, takeFlowValue(flow), payload);
        benchmark::DoNotOptimize(frame);
    }
    state.SetBytesProcessed(state.iterations() * (state.range(0) + 16));
}
BENCHMARK(BM_EncodeFrame)->Arg(0)->Arg(4096)->Arg(262144)->Arg(maxFramePayload);

static void BM_ParseFrameHeader(benchmark::State& state) {
    Bytes header = encodeFrame(FrameKind::response, 7, 99, {}).value();
    for (auto _ : state) {
        auto parsed = parseFrameHeader(header);
        benchmark::DoNotOptimize(parsed);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ParseFrameHeader);

namespace {

asio::awaitable<TunnelMessage> echo(std::uint16_t code, Bytes payload) {
    co_return TunnelMessage{code, std::move(payload)};
}

asio::awaitable<void> roundTrips(std::shared_ptr<TunnelEngine> client, std::size_t count,
                                 std::size_t size) {
    for (std::size_t i = 0; i < count; ++i) {
        Bytes payload(size, 0x5A);
        auto answer = co_await client->request(1, std::move(payload));
        if (answer.payload.size() != size) {
            throw std::runtime_error("short echo");
        }
    }
}

}  // namespace

// Round trips in sequence, one request in flight at a time (argument: payload bytes).
static void BM_EngineRoundTrip(benchmark::State& state) {
    runtime::IoRuntime runtime(2);
    runtime.start();
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) {
        state.SkipWithError("socketpair failed");
        return;
    }
    auto clientSide = std::make_shared<SocketTunnelTransport>(runtime.executor(), fds[0]);
    auto serverSide = std::make_shared<SocketTunnelTransport>(runtime.executor(), fds[1]);
    auto client = std::make_shared<TunnelEngine>(runtime.executor());
    auto server = std::make_shared<TunnelEngine>(runtime.executor());
    auto bindBoth = [&]() -> asio::awaitable<void> {
        // Named bindings: the co_await temporaries rule in common/task.hpp.
        TunnelBinding serverBinding{serverSide, TunnelEndpointRole::server, std::nullopt, echo, {}};
        TunnelBinding clientBinding{clientSide, TunnelEndpointRole::client, std::nullopt, {}, {}};
        co_await server->bind(std::move(serverBinding));
        co_await client->bind(std::move(clientBinding));
    };
    asio::co_spawn(runtime.executor(), bindBoth(), asio::use_future).get();

    const auto size = static_cast<std::size_t>(state.range(0));
    constexpr std::size_t kBatch = 100;
    for (auto _ : state) {
        asio::co_spawn(runtime.executor(), roundTrips(client, kBatch, size), asio::use_future)
            .get();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
    state.SetBytesProcessed(state.iterations() * kBatch * size * 2);
    state.counters["round_trips_per_s"] = benchmark::Counter(
        static_cast<double>(state.iterations() * kBatch), benchmark::Counter::kIsRate);

    auto tearDown = [&]() -> asio::awaitable<void> {
        co_await clientSide->close();
        co_await serverSide->close();
        co_await client->unbind();
        co_await server->unbind();
    };
    asio::co_spawn(runtime.executor(), tearDown(), asio::use_future).get();
    runtime.stop();
}
BENCHMARK(BM_EngineRoundTrip)->Arg(0)->Arg(4096)->Arg(262144)->UseRealTime();

BENCHMARK_MAIN();
