// The engine's read loop fed arbitrary bytes. The first byte picks the role; in the
// client role a few requests wait (flows 1 to 3) so responses can match them; in the
// server role requests are echoed and pushes are queued behind them.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "memory_transport.hpp"
#include "tunnel/tunnel_engine.hpp"

using namespace skiff::tunnel;

namespace {

asio::awaitable<TunnelMessage> echo(std::uint16_t code, skiff::Bytes payload) {
    co_return TunnelMessage{code, std::move(payload)};
}

asio::awaitable<void> drive(std::shared_ptr<TunnelEngine> engine,
                            std::shared_ptr<MemoryTransport> transport, bool server) {
    TunnelBinding binding{transport,
                          server ? TunnelEndpointRole::server : TunnelEndpointRole::client, "fuzz",
                          server ? TunnelRequestHandler(echo) : TunnelRequestHandler(),
                          [](std::uint16_t, skiff::Bytes) {}};
    co_await engine->bind(std::move(binding));
    if (server) {
        co_await engine->enqueuePush(3, skiff::Bytes{1, 2, 3});
        co_return;
    }
    auto executor = co_await asio::this_coro::executor;
    for (int i = 0; i < 3; ++i) {
        asio::co_spawn(executor, engine->request(static_cast<std::uint16_t>(i), {}),
                       [](std::exception_ptr, TunnelMessage) {});
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    asio::io_context context;
    {
        auto engine = std::make_shared<TunnelEngine>(context.get_executor());
        auto transport = std::make_shared<MemoryTransport>(std::span(data + 1, size - 1));
        asio::co_spawn(context, drive(engine, transport, (data[0] & 1) != 0), asio::detached);
    }
    // Every task must finish once the input runs out: run() returning is the check
    // that nothing is left waiting.
    context.run();
    return 0;
}
