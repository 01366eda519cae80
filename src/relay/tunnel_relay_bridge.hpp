#pragma once
// Carries client requests through the shared TunnelEngine to the companion app and
// dispatches the app's pushes. It owns the engine's binding: the tunnel is opened on
// demand, and a failed tunnel is dropped (its transport closed) so that the next
// request connects anew; nothing is repaired in place.
//
// The speed test shares the tunnel's key (first device, the app's port) but must never
// share its connection: while a caller holds exclusive use, relays wait instead of
// opening the tunnel.

#include <asio.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/actor.hpp"
#include "common/async_mutex.hpp"
#include "common/bridge_messages.hpp"
#include "common/bytes.hpp"
#include "relay/tunnel_opener.hpp"
#include "tunnel/tunnel_engine.hpp"

namespace skiff::relay {

// What a client receives: the data, a UsbMuxRelayError raw value and its detail.
struct RelayReply {
    Bytes data;
    std::int64_t status = 0;
    std::int64_t detail = 0;
};

// The response of the app, or the failure status 1 (not bound) or 3 (tunnel failed).
struct RelayOutcome {
    std::optional<tunnel::TunnelMessage> response;
    std::int64_t failureStatus = 0;
    std::uint64_t binding = 0;  // which binding carried the request
};

// Where the app's pushes go besides the bridge itself: the service's notification hub
// implements it, so the relay knows nothing of the layers above it.
// Called from the bridge's read path (forwardToExtension) or a task on its executor (the
// other two); must not block.
class PushSink {
public:
    virtual ~PushSink() = default;
    // To the file-system extension, if it is registered.
    virtual void forwardToExtension(std::int64_t message, Bytes body) = 0;
    // The phone's mount request and item notice; dropped until something handles them.
    virtual void mountControl(Bytes) {}
    virtual void itemMutation(Bytes) {}
};

class TunnelRelayBridge : public runtime::Actor,
                          public std::enable_shared_from_this<TunnelRelayBridge> {
public:
    using Clock = std::chrono::system_clock;

    // Pushes go to `sink` (null: they are dropped), which is built before the bridge and
    // owns nothing that owns it.
    TunnelRelayBridge(asio::any_io_executor executor, std::shared_ptr<tunnel::TunnelEngine> engine,
                      std::shared_ptr<TunnelOpener> opener, std::shared_ptr<PushSink> sink);

    // Binds the engine to port when needed and sends one request. The payload is shared,
    // not copied, on its way to the socket: a caller may keep it to send it again.
    asio::awaitable<RelayOutcome> relay(std::uint16_t port, std::uint16_t code,
                                        SharedBytes payload);
    // Drops the binding that failed in outcome, unless another has replaced it already.
    asio::awaitable<void> unbindAfterFailure(RelayOutcome outcome);

    // A client's relay to the app's port, mapped to its reply. Runs on the bridge's strand
    // from start to end, so a failure is unbound without a second hand-over.
    asio::awaitable<RelayReply> relayForClient(std::uint16_t code, SharedBytes payload);
    // Several client relays to the app's port: each is sent without waiting for the answer
    // of the one before, in the given order, then every answer is awaited. One reply each.
    asio::awaitable<std::vector<RelayReply>> relayInOrderForClient(
        std::vector<std::pair<std::uint16_t, SharedBytes>> requests);

    // The device went away: fail every waiting request and drop the tunnel.
    asio::awaitable<void> dropBinding();
    // The app stopped answering: as dropBinding, and the native tunnel to port is forgotten
    // too, so the next request connects anew. While an exclusive user holds the tunnel its
    // connection is theirs, and is left alone.
    asio::awaitable<void> invalidateTunnel(std::uint16_t port);

    // Takes the tunnel to port away from the relay until endExclusiveUse: the binding is
    // dropped and the native tunnel invalidated. Holders take turns.
    asio::awaitable<void> beginExclusiveUse(std::uint16_t port);
    // Invalidates the native tunnel again, so the next relay opens a fresh connection.
    asio::awaitable<void> endExclusiveUse(std::uint16_t port);

    std::optional<Clock::time_point> lastIOSContact() const;

private:
    asio::awaitable<RelayOutcome> doRelay(std::uint16_t port, std::uint16_t code,
                                          SharedBytes payload);
    asio::awaitable<void> doUnbindAfterFailure(RelayOutcome outcome);
    asio::awaitable<RelayReply> doRelayForClient(std::uint16_t code, SharedBytes payload);
    asio::awaitable<std::vector<RelayReply>> doRelayInOrderForClient(
        std::vector<std::pair<std::uint16_t, SharedBytes>> requests);
    // The client's reply to the app's answer; marks the contact.
    RelayReply replyFor(tunnel::TunnelMessage answer);
    asio::awaitable<void> doDropBinding();
    asio::awaitable<void> doInvalidateTunnel(std::uint16_t port);
    asio::awaitable<void> doBeginExclusiveUse(std::uint16_t port);
    asio::awaitable<void> doEndExclusiveUse(std::uint16_t port);

    // Returns the binding serving port, or nothing when the tunnel cannot be opened.
    asio::awaitable<std::optional<std::uint64_t>> ensureBinding(std::uint16_t port);
    asio::awaitable<void> unbindAndClose();
    void handlePush(std::uint16_t code, Bytes body);
    void touchContact();

    std::shared_ptr<tunnel::TunnelEngine> engine_;
    std::shared_ptr<TunnelOpener> opener_;
    const std::shared_ptr<PushSink> sink_;
    // Where push handlers run: beside the strand, never on it.
    asio::any_io_executor executor_;

    // Strand state.
    std::shared_ptr<tunnel::TunnelTransport> transport_;
    std::uint64_t binding_ = 0;
    // Held while the tunnel is looked at or opened, and by an exclusive user from
    // beginExclusiveUse to endExclusiveUse.
    runtime::AsyncMutex tunnelUse_;
    runtime::AsyncMutex::Lock exclusiveUse_;
    // Held while a dropped transport closes: an open waits for it.
    runtime::AsyncMutex closing_;

    mutable std::mutex contactLock_;
    std::optional<Clock::time_point> lastIOSContact_;
};

}  // namespace skiff::relay
