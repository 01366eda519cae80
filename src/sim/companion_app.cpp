#include "sim/companion_app.hpp"

#include <array>
#include <chrono>
#include <limits>
#include <string_view>

#include "common/task.hpp"
#include "sim/app_framed.hpp"
#include "sim/app_state.hpp"
#include "tunnel/tunnel_frame.hpp"

namespace skiff::sim {
namespace {

constexpr size_t kReceivedLimit = 1000;

enum class Protocol { undecided, frames, measurement, echo };

Protocol protocolOf(std::string_view head) {
    struct Start {
        std::string_view bytes;
        Protocol protocol;
    };
    constexpr std::array<Start, 3> starts{{{"PRTU", Protocol::frames},
                                           {"PING", Protocol::measurement},
                                           {"BW:", Protocol::measurement}}};
    bool couldStillBe = false;
    for (const auto& start : starts) {
        if (head.starts_with(start.bytes)) {
            return start.protocol;
        }
        couldStillBe = couldStillBe || start.bytes.starts_with(head);
    }
    return couldStillBe ? Protocol::undecided : Protocol::echo;
}

asio::awaitable<void> serveConnection(std::shared_ptr<CompanionApp::State> state,
                                      std::shared_ptr<AppSocket> socket) {
    std::string head;
    std::array<char, 64> buffer{};
    Protocol protocol = Protocol::undecided;
    while (protocol == Protocol::undecided) {
        std::error_code ec;
        size_t n = co_await socket->async_read_some(asio::buffer(buffer),
                                                    asio::redirect_error(asio::use_awaitable, ec));
        if (ec) {
            co_return;
        }
        head.append(buffer.data(), n);
        protocol = protocolOf(head);
    }
    switch (protocol) {
        case Protocol::frames:
            state->report("app: a framed connection");
            co_await serveFrames(state, std::move(socket), std::move(head));
            break;
        case Protocol::measurement:
            state->report("app: a measurement connection");
            co_await serveMeasurement(state, std::move(socket), std::move(head));
            break;
        default:
            co_await serveEcho(std::move(socket), std::move(head));
            break;
    }
}

void releaseParked(CompanionApp::State& state) {
    for (auto& weak : state.parked) {
        if (auto timer = weak.lock()) {
            timer->cancel();
        }
    }
    state.parked.clear();
}

// The count of chunk requests at which a chunk switch acts: the command's number counts
// from the next request on. A number too large to reach never acts.
std::optional<std::uint64_t> chunkTarget(const AppFaults& faults, const AppCommand& command) {
    if (!command.on ||
        command.chunk > std::numeric_limits<std::uint64_t>::max() - faults.chunkRequests) {
        return std::nullopt;
    }
    return faults.chunkRequests + command.chunk;
}

ControlReply applyFault(CompanionApp::State& state, const AppCommand& command) {
    AppFaults& faults = state.faults;
    switch (command.fault) {
        case AppFault::silent:
            faults.silent = command.on;
            break;
        case AppFault::close:
            faults.closeOnRequest = command.on;
            break;
        case AppFault::status:
            faults.status = command.on ? std::optional<std::uint16_t>(command.code) : std::nullopt;
            break;
        case AppFault::delay:
            faults.delay = std::chrono::milliseconds(command.delayMs);
            break;
        case AppFault::pong:
            faults.pongLine = command.on ? std::optional<std::string>(command.text) : std::nullopt;
            break;
        case AppFault::ack:
            faults.downloadAck =
                command.on ? std::optional<std::string>(command.text) : std::nullopt;
            break;
        case AppFault::failChunk:
            faults.failAtChunk = chunkTarget(faults, command);
            break;
        case AppFault::dropAtChunk:
            faults.dropAtChunk = chunkTarget(faults, command);
            break;
        case AppFault::endlessList:
            faults.answers.endlessList = command.on;
            break;
        case AppFault::badNames:
            faults.answers.badNames = command.on;
            break;
        case AppFault::nonUtf8Name:
            faults.answers.nonUtf8Name = command.on;
            break;
        case AppFault::foreignEntry:
            faults.answers.foreignEntry = command.on;
            break;
        case AppFault::shortChunk:
            faults.answers.shortChunks = command.on;
            break;
        case AppFault::clear:
            faults = AppFaults{};
            break;
    }
    if (!faults.silent) {
        releaseParked(state);
    }
    return ControlReply{};
}

// Starts a send on each live framed connection; the data line says how many.
template <class StartSend>
ControlReply toEveryFramedConnection(CompanionApp::State& state, StartSend startSend) {
    auto connections = liveFramedConnections(state);
    for (const auto& connection : connections) {
        startSend(*connection);
    }
    ControlReply reply;
    reply.lines.push_back(std::to_string(connections.size()));
    return reply;
}

ControlReply pushToEveryFramedConnection(CompanionApp::State& state, std::uint16_t code,
                                         const Bytes& body) {
    return toEveryFramedConnection(state, [&](FramedConnection& connection) {
        runtime::spawnTask(state.executor, connection.engine, &tunnel::TunnelEngine::enqueuePush,
                           code, body);
    });
}

asio::awaitable<void> sendRaw(std::shared_ptr<tunnel::SocketTunnelTransport> transport,
                              Bytes bytes) {
    try {
        co_await transport->send(std::move(bytes), {});
    } catch (const tunnel::TunnelTransportError&) {
        // The engine's read loop notices a dead connection.
    }
}

// Pushes back to back until the time is up or the connection ends. Each frame is
// encoded only when the one before it has been written, so a connection that reads
// slowly holds one frame here and not a queue. The frames go straight to the transport,
// where answers take turns with them: the engine's push queue would take every push at
// once and hold them all back while a request is in hand.
asio::awaitable<void> flood(std::shared_ptr<CompanionApp::State> state,
                            std::shared_ptr<tunnel::SocketTunnelTransport> transport,
                            std::uint16_t code, SharedBytes body,
                            std::chrono::steady_clock::time_point until) {
    std::uint32_t flow = 1;
    std::uint64_t sent = 0;
    try {
        while (std::chrono::steady_clock::now() < until) {
            auto header = tunnel::encodeFrameHeader(tunnel::FrameKind::push, code,
                                                    tunnel::takeFlowValue(flow), body.size());
            if (!header) {
                break;
            }
            co_await transport->send(std::move(*header), body);
            ++sent;
        }
    } catch (const tunnel::TunnelTransportError&) {
        // The connection ended: so does its flood.
    }
    state->report("app: flood of code " + std::to_string(code) + " ended after " +
                  std::to_string(sent) + " pushes");
}

}  // namespace

void CompanionApp::State::record(std::string entry) {
    received.push_back(std::move(entry));
    if (received.size() > kReceivedLimit) {
        received.pop_front();
    }
}

asio::awaitable<void> pause(std::shared_ptr<asio::steady_timer> timer,
                            std::chrono::steady_clock::duration duration) {
    timer->expires_after(duration);
    std::error_code ignored;
    co_await timer->async_wait(asio::redirect_error(asio::use_awaitable, ignored));
}

CompanionApp::CompanionApp(asio::any_io_executor executor, Reporter report)
    : state_(std::make_shared<State>()) {
    state_->executor = std::move(executor);
    state_->report = std::move(report);
    installBasicHandlers(state_->handlers);
}

CompanionApp::~CompanionApp() {
    releaseParked(*state_);
}

PortListener CompanionApp::listener() {
    return [state = state_](std::shared_ptr<AppSocket> socket, const AppConnectionInfo&) {
        runtime::spawnTask(state->executor, state, &serveConnection, std::move(socket));
    };
}

asio::any_io_executor CompanionApp::executor() const {
    return state_->executor;
}

void CompanionApp::setLink(const LinkModel& link) {
    state_->link = link;
}

void CompanionApp::onWriteChunkFailed(std::function<void(const Bytes&)> handler) {
    state_->writeChunkFailed = std::move(handler);
}

AppHandlerTable& CompanionApp::handlers() {
    return state_->handlers;
}

ControlReply CompanionApp::pushItemMutation(const service::ItemMutationNotifyPayload& payload) {
    return pushToEveryFramedConnection(
        *state_, static_cast<std::uint16_t>(service::BridgeNotifyMessage::itemMutation),
        json::encode(payload).value_or(Bytes{}));
}

ControlReply CompanionApp::execute(const AppCommand& command) {
    switch (command.verb) {
        case AppVerb::push:
            return pushToEveryFramedConnection(*state_, command.code,
                                               Bytes(command.text.begin(), command.text.end()));
        case AppVerb::poke:
            return pushItemMutation({command.pokeKind, command.text});
        case AppVerb::flood: {
            const SharedBytes body(Bytes(command.floodBytes, std::uint8_t{'x'}));
            auto until =
                std::chrono::steady_clock::now() + std::chrono::seconds(command.floodSeconds);
            return toEveryFramedConnection(*state_, [&](FramedConnection& connection) {
                runtime::spawnTask(state_->executor, state_, &flood, connection.socketTransport,
                                   command.code, body, until);
            });
        }
        case AppVerb::fault:
            return applyFault(*state_, command);
        case AppVerb::inject: {
            Bytes bytes = command.injection == AppInjection::unknownFlow ? unknownFlowFrame()
                                                                         : badFrameHeader();
            return toEveryFramedConnection(*state_, [&](FramedConnection& connection) {
                runtime::spawnTask(state_->executor, connection.socketTransport, &sendRaw, bytes);
            });
        }
        case AppVerb::received: {
            ControlReply reply;
            reply.lines.assign(state_->received.begin(), state_->received.end());
            return reply;
        }
    }
    return ControlReply{};
}

}  // namespace skiff::sim
