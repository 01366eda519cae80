#pragma once
// Multiplexes request/response calls and server pushes over one TunnelTransport.
// Bound as client it sends requests and takes responses and pushes; bound as server
// it answers requests through a handler and sends queued pushes, holding pushes back
// while any request is in hand. All state lives on the engine's strand.
//
// Hold an engine in a std::shared_ptr (its tasks keep it alive). skiffd makes the one
// the relay uses in main; tests and the simulated app make their own.

#include <asio.hpp>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "common/actor.hpp"
#include "common/bytes.hpp"
#include "common/once_reply.hpp"
#include "tunnel/tunnel_errors.hpp"
#include "tunnel/tunnel_frame.hpp"
#include "tunnel/tunnel_transport.hpp"

namespace skiff::tunnel {

enum class TunnelEndpointRole { client, server };

struct TunnelMessage {
    std::uint16_t code = 0;
    Bytes payload;
};

// Answers one request in the server role; it does not fail.
using TunnelRequestHandler = std::function<asio::awaitable<TunnelMessage>(std::uint16_t, Bytes)>;
// Takes one push in the client role. Runs on the engine's strand: it must not block.
using TunnelNotifyHandler = std::function<void(std::uint16_t, Bytes)>;

struct TunnelBinding {
    std::shared_ptr<TunnelTransport> transport;
    TunnelEndpointRole role = TunnelEndpointRole::client;
    std::optional<std::string> tunnelKey;
    TunnelRequestHandler requestHandler;
    TunnelNotifyHandler notifyHandler;
};

class TunnelEngine : public runtime::Actor, public std::enable_shared_from_this<TunnelEngine> {
public:
    explicit TunnelEngine(asio::any_io_executor executor);

    // Sets the transport, role, key and handlers, then starts the read loop. Callers
    // unbind first.
    asio::awaitable<void> bind(TunnelBinding binding);
    // Stops reading, resumes every waiting request with disconnected and forgets the
    // binding. The transport is not closed: that is the binder's call.
    asio::awaitable<void> unbind();
    // Resumes every waiting request with error, then unbinds.
    asio::awaitable<void> failAllPending(TunnelEngineError error);

    // Client role: sends a request and waits for its response. Throws TunnelEngineError,
    // or the transport's own TunnelTransportError when writing this request failed. The
    // payload goes to the transport as it is, behind a separate header: never copied.
    asio::awaitable<TunnelMessage> request(std::uint16_t code, SharedBytes payload);
    // Client role: sends a request without waiting for its response, which the returned
    // reply gives (its wait throws as request does). Requests sent one after another reach
    // the transport in that order. Throws TunnelEngineError when nothing is bound.
    asio::awaitable<runtime::OnceReply<TunnelMessage>> send(std::uint16_t code,
                                                            SharedBytes payload);

    // Server role: queues a push and sends what the queue holds unless requests are in
    // hand. A failed or refused send is dropped (the read loop notices a dead tunnel).
    asio::awaitable<void> enqueuePush(std::uint16_t code, Bytes payload);

    asio::awaitable<std::optional<std::string>> tunnelKey();
    asio::awaitable<std::optional<TunnelEndpointRole>> role();
    asio::awaitable<int> handlingRequestCount();

private:
    using Transport = std::shared_ptr<TunnelTransport>;

    // Bodies run on the strand, isolated or spawned with the engine's own shared_ptr as
    // their owner, so an engine dropped by its owner lives until they are done.
    asio::awaitable<void> doBind(TunnelBinding binding);
    asio::awaitable<void> doUnbind();
    asio::awaitable<runtime::OnceReply<TunnelMessage>> doRequest(std::uint16_t code,
                                                                 SharedBytes payload);
    asio::awaitable<void> doEnqueuePush(std::uint16_t code, Bytes payload);
    asio::awaitable<void> doFailAllPending(TunnelEngineError error);
    asio::awaitable<std::optional<std::string>> doTunnelKey();
    asio::awaitable<std::optional<TunnelEndpointRole>> doRole();
    asio::awaitable<int> doHandlingRequestCount();
    asio::awaitable<void> readLoop(Transport transport, std::uint64_t binding);
    asio::awaitable<void> sendRequest(Transport transport, std::uint32_t flow, Bytes header,
                                      SharedBytes payload);
    asio::awaitable<void> answerRequest(Transport transport, std::uint64_t binding,
                                        std::uint16_t code, std::uint32_t flow, Bytes payload);
    asio::awaitable<void> flushNotifyQueue();

    // Waits off the strand for the response that doRequest registered.
    static asio::awaitable<TunnelMessage> awaitResponse(
        asio::awaitable<runtime::OnceReply<TunnelMessage>> registered);

    void start();
    void unbindNow();
    void failAllPendingNow(const TunnelEngineError& error);
    void handleFrame(const FrameHeader& header, Bytes payload);
    void registerPending(std::uint32_t flow, const runtime::OnceReply<TunnelMessage>& caller);

    Transport transport_;
    std::optional<TunnelEndpointRole> role_;
    std::optional<std::string> tunnelKey_;
    // Which binding the running read loop serves; bumped to cancel it.
    std::uint64_t readBinding_ = 0;
    bool reading_ = false;
    TunnelRequestHandler requestHandler_;
    TunnelNotifyHandler notifyHandler_;
    std::uint32_t nextFlowID_ = 1;
    std::map<std::uint32_t, runtime::OnceReply<TunnelMessage>> pendingResponses_;
    std::deque<TunnelMessage> notifyQueue_;
    int handlingRequestCount_ = 0;
    bool isSending_ = false;
};

}  // namespace skiff::tunnel
