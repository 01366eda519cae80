#pragma once

#include <asio.hpp>
#include <functional>
#include <string>

namespace skiff::sim {

using UnixSocket = asio::local::stream_protocol::socket;
using UnixAcceptor = asio::local::stream_protocol::acceptor;

// Binds and listens on path, replacing a stale socket file; throws std::system_error.
void listenOnUnixSocket(UnixAcceptor& acceptor, const std::string& path);

// Closes the acceptor (ending acceptUntilClosed) and removes its socket file.
void closeUnixAcceptor(UnixAcceptor& acceptor, const std::string& path);

// Hands every accepted connection to onAccept until the acceptor is closed.
asio::awaitable<void> acceptUntilClosed(UnixAcceptor& acceptor,
                                        std::function<void(UnixSocket)> onAccept);

}  // namespace skiff::sim
