#include <unistd.h>

#include <limits>

#include "relay/relay_schema.hpp"
#include "sim/app_framed.hpp"
#include "sim/app_transfer.hpp"
#include "tunnel/tunnel_errors.hpp"
#include "tunnel/tunnel_frame.hpp"

namespace skiff::sim {
namespace {

using relay::RelayDeviceStatus;

// The socket transport behind the bytes the app read to tell the protocols apart, and
// the place where the app learns that the connection has ended.
class AppTransport : public tunnel::TunnelTransport {
public:
    AppTransport(std::shared_ptr<FramedConnection> connection, std::string head,
                 const LinkModel& link)
        : connection_(connection),
          inner_(connection->socketTransport),
          head_(std::move(head)),
          paced_(link.bytesPerSecond > 0),
          out_(link.bytesPerSecond),
          in_(link.bytesPerSecond) {}

    asio::awaitable<void> send(Bytes head, SharedBytes tail) override {
        if (paced_) {
            co_await waitUntil(out_.book(head.size() + tail.size()));
        }
        co_await inner_->send(std::move(head), std::move(tail));
    }

    asio::awaitable<Bytes> receive(std::size_t count) override {
        Bytes bytes = co_await receiveHead(count);
        if (paced_) {
            co_await waitUntil(in_.book(bytes.size()));
        }
        co_return bytes;
    }

    asio::awaitable<void> close() override { return inner_->close(); }

private:
    asio::awaitable<Bytes> receiveHead(std::size_t count) {
        if (head_.empty()) {
            // Past the first bytes, as every chunk body is: straight from the socket.
            co_return co_await receiveRest(count);
        }
        size_t taken = std::min(count, head_.size());
        Bytes out(head_.begin(), head_.begin() + static_cast<std::ptrdiff_t>(taken));
        head_.erase(0, taken);
        if (taken == count) {
            co_return out;
        }
        Bytes rest = co_await receiveRest(count - taken);
        out.insert(out.end(), rest.begin(), rest.end());
        co_return out;
    }

    asio::awaitable<Bytes> receiveRest(std::size_t count) {
        bool failed = false;
        Bytes rest;
        try {
            rest = co_await inner_->receive(count);
        } catch (const tunnel::TunnelTransportError&) {
            failed = true;
        }
        if (failed) {
            endConnection();
            throw tunnel::TunnelTransportError(tunnel::TunnelTransportError::Case::disconnected);
        }
        co_return rest;
    }

    void endConnection() {
        if (auto connection = connection_.lock()) {
            closeFramedConnection(*connection);
        }
    }

    std::weak_ptr<FramedConnection> connection_;
    std::shared_ptr<tunnel::SocketTunnelTransport> inner_;
    std::string head_;
    bool paced_;
    LinkPacer out_;
    LinkPacer in_;
};

enum class ChunkFault { none, fail, drop };

// Counts a chunk request as it arrives and says what the chunk switches make of it.
ChunkFault takeChunkFault(AppFaults& faults, std::uint16_t code) {
    if (code != kReadChunkRequestCode && code != kWriteChunkRequestCode) {
        return ChunkFault::none;
    }
    ++faults.chunkRequests;
    if (faults.dropAtChunk == faults.chunkRequests) {
        return ChunkFault::drop;
    }
    return faults.failAtChunk == faults.chunkRequests ? ChunkFault::fail : ChunkFault::none;
}

asio::awaitable<tunnel::TunnelMessage> handle(std::shared_ptr<CompanionApp::State> state,
                                              std::weak_ptr<FramedConnection> weak,
                                              std::uint16_t code, Bytes payload) {
    const ChunkFault chunkFault = takeChunkFault(state->faults, code);
    if (state->faults.closeOnRequest || chunkFault == ChunkFault::drop) {
        if (auto connection = weak.lock()) {
            closeFramedConnection(*connection);
        }
        co_return tunnel::TunnelMessage{kUnknownRequestCode, {}};  // never gets out
    }
    while (state->faults.silent) {
        auto timer = std::make_shared<asio::steady_timer>(state->executor);
        state->parked.push_back(timer);
        co_await pause(timer, std::chrono::hours(24 * 365));
    }
    if (state->faults.delay.count() > 0) {
        co_await pause(std::make_shared<asio::steady_timer>(state->executor), state->faults.delay);
    }
    if (chunkFault == ChunkFault::fail) {
        if (code == kWriteChunkRequestCode && state->writeChunkFailed) {
            state->writeChunkFailed(payload);
        }
        co_return tunnel::TunnelMessage{static_cast<std::uint16_t>(RelayDeviceStatus::ioError), {}};
    }
    if (state->faults.status) {
        co_return tunnel::TunnelMessage{*state->faults.status, {}};
    }
    auto it = state->handlers.find(code);
    if (it == state->handlers.end()) {
        co_return tunnel::TunnelMessage{kUnknownRequestCode, {}};
    }
    // A copy: the table may change while the handler is suspended.
    AppRequestHandler handler = it->second;
    if (!state->faults.answers.any()) {
        co_return co_await handler(std::move(payload));
    }
    auto answer = co_await handler(payload);
    distortAnswer(state->faults.answers, code, payload, answer);
    co_return answer;
}

asio::awaitable<tunnel::TunnelMessage> answer(std::weak_ptr<CompanionApp::State> weakState,
                                              std::weak_ptr<FramedConnection> weak,
                                              std::uint16_t code, Bytes payload) {
    const auto arrived = std::chrono::steady_clock::now();
    auto state = weakState.lock();
    if (!state) {
        co_return tunnel::TunnelMessage{static_cast<std::uint16_t>(RelayDeviceStatus::ioError), {}};
    }
    // The first suspension: turns are taken in arrival order.
    std::optional<ItemOrder::Turn> turn;
    if (auto item = itemOfRequest(code, payload)) {
        turn = co_await state->order.turn(std::move(*item));
    }
    auto answer = co_await handle(state, weak, code, std::move(payload));
    turn.reset();
    // Held back outside the turn: the link delays answers, not the app's work.
    if (state->link.latency.count() > 0) {
        co_await waitUntil(arrived + state->link.latency);
    }
    co_return answer;
}

}  // namespace

void closeFramedConnection(FramedConnection& connection) {
    connection.ended = true;
    std::error_code ignored;
    connection.socket->shutdown(asio::socket_base::shutdown_both, ignored);
    connection.socket->close(ignored);
}

asio::awaitable<void> serveFrames(std::shared_ptr<CompanionApp::State> state,
                                  std::shared_ptr<AppSocket> socket, std::string head) {
    auto connection = std::make_shared<FramedConnection>();
    connection->socket = socket;
    // The transport gets its own descriptor; the mux server's close of the shared socket
    // still shuts the stream down for both.
    connection->socketTransport = std::make_shared<tunnel::SocketTunnelTransport>(
        state->executor, ::dup(socket->native_handle()));
    connection->engine = std::make_shared<tunnel::TunnelEngine>(state->executor);
    std::erase_if(state->framed, [](const auto& c) { return c->ended; });
    state->framed.push_back(connection);

    std::weak_ptr<FramedConnection> weak = connection;
    tunnel::TunnelBinding binding;
    binding.transport = std::make_shared<AppTransport>(connection, std::move(head), state->link);
    binding.role = tunnel::TunnelEndpointRole::server;
    binding.tunnelKey = "app";
    // The engine holds the handler and the state holds the engine: the handler's hold on
    // the state is weak, or an app with a connection still bound would never be freed.
    std::weak_ptr<CompanionApp::State> weakState = state;
    binding.requestHandler = [weakState, weak](std::uint16_t code, Bytes payload) {
        return answer(weakState, weak, code, std::move(payload));
    };
    co_await connection->engine->bind(std::move(binding));
}

std::vector<std::shared_ptr<FramedConnection>> liveFramedConnections(CompanionApp::State& state) {
    std::erase_if(state.framed, [](const auto& c) { return c->ended || !c->socket->is_open(); });
    return state.framed;
}

Bytes unknownFlowFrame() {
    // The client's counter would need four billion requests to reach this flow.
    return *tunnel::encodeFrame(tunnel::FrameKind::response, 0,
                                std::numeric_limits<std::uint32_t>::max(), {});
}

Bytes badFrameHeader() {
    return Bytes(tunnel::kFrameHeaderSize, 0xFF);
}

}  // namespace skiff::sim
