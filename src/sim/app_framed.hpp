#pragma once

// Framed connections of the companion app.

#include <asio.hpp>
#include <memory>
#include <string>
#include <vector>

#include "sim/app_state.hpp"

namespace skiff::sim {

// Binds an engine in the server role over the connection; head holds the bytes
// already read from it.
asio::awaitable<void> serveFrames(std::shared_ptr<CompanionApp::State> state,
                                  std::shared_ptr<AppSocket> socket, std::string head);

// Shuts the stream down; the engine's read loop then ends the binding.
void closeFramedConnection(FramedConnection& connection);

// Forgets the ended connections and returns the others.
std::vector<std::shared_ptr<FramedConnection>> liveFramedConnections(CompanionApp::State& state);

Bytes unknownFlowFrame();
Bytes badFrameHeader();

}  // namespace skiff::sim
