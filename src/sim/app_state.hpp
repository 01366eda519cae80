#pragma once

// What the companion app's connections share: faults, handlers, the record of what the
// measurement connections received, and the framed connections for pushes.

#include <asio.hpp>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sim/app_answer_faults.hpp"
#include "sim/app_handlers.hpp"
#include "sim/app_link.hpp"
#include "sim/app_order.hpp"
#include "sim/companion_app.hpp"
#include "tunnel/socket_tunnel_transport.hpp"
#include "tunnel/tunnel_engine.hpp"

namespace skiff::sim {

struct AppFaults {
    bool silent = false;
    bool closeOnRequest = false;
    std::optional<std::uint16_t> status;
    std::chrono::milliseconds delay{0};
    std::optional<std::string> pongLine;     // "PONG" when none
    std::optional<std::string> downloadAck;  // "BW:DOWN:OK:<N>" when none
    // Chunk requests seen so far; the chunk switches name the count they act at.
    std::uint64_t chunkRequests = 0;
    std::optional<std::uint64_t> failAtChunk;  // answered with ioError
    std::optional<std::uint64_t> dropAtChunk;  // the connection is closed instead
    AnswerFaults answers;
};

struct FramedConnection {
    std::shared_ptr<AppSocket> socket;  // shared with the mux server, which may close it
    std::shared_ptr<tunnel::SocketTunnelTransport> socketTransport;
    std::shared_ptr<tunnel::TunnelEngine> engine;
    bool ended = false;
};

struct CompanionApp::State {
    asio::any_io_executor executor;
    Reporter report;
    AppFaults faults;
    AppHandlerTable handlers;
    ItemOrder order;
    LinkModel link;                                      // set before the first connection
    std::function<void(const Bytes&)> writeChunkFailed;  // set before the first connection
    std::deque<std::string> received;
    // Requests held while the app is silent; cancelled to let them go.
    std::vector<std::weak_ptr<asio::steady_timer>> parked;
    std::vector<std::shared_ptr<FramedConnection>> framed;

    void record(std::string entry);
};

// Serves measurement lines until the peer goes; pending holds bytes already read.
asio::awaitable<void> serveMeasurement(std::shared_ptr<CompanionApp::State> state,
                                       std::shared_ptr<AppSocket> socket, std::string pending);

// Waits for the given time on the app's executor; a cancelled wait ends early.
asio::awaitable<void> pause(std::shared_ptr<asio::steady_timer> timer,
                            std::chrono::steady_clock::duration duration);

}  // namespace skiff::sim
