#pragma once
// The host's volume operations: the unmount notice to the phone, the shutdown's forced
// unmount, and mounting and unmounting on a client's request. Each is a task body for
// runtime::spawnTask with the core as its owner; they reach the volume only through the
// core's collaborators and never block an io_context thread (the tools run on the
// volume's own thread).

#include <asio/awaitable.hpp>
#include <functional>
#include <memory>
#include <string>

namespace skiff::service {

class BridgeCore;

// Tells the app (relay code 20) when a phone is attached, then lets the relay probe
// resume its watch.
asio::awaitable<void> unmountNoticeTask(std::shared_ptr<BridgeCore> core);

// Forces the volume off, sends the unmount notice, and replies whether the volume is off
// (nothing mounted counts as off).
asio::awaitable<void> shutdownTask(std::shared_ptr<BridgeCore> core,
                                   std::function<void(bool)> reply);

// A client's mount or unmount; replies (true, "") or (false, the failure's message). A
// mount with no phone attached fails with "no phone is attached".
asio::awaitable<void> mountTask(std::shared_ptr<BridgeCore> core,
                                std::function<void(bool, std::string)> reply);
asio::awaitable<void> unmountTask(std::shared_ptr<BridgeCore> core, bool force,
                                  std::function<void(bool, std::string)> reply);

}  // namespace skiff::service
