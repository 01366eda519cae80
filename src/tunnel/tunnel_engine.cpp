#include "tunnel/tunnel_engine.hpp"

#include <utility>

#include "common/io_runtime.hpp"

namespace skiff::tunnel {
namespace {

TunnelEngineError engineError(TunnelEngineError::Case c) {
    return TunnelEngineError(c);
}

}  // namespace

TunnelEngine::TunnelEngine(asio::any_io_executor executor) : Actor(std::move(executor)) {}

asio::awaitable<void> TunnelEngine::bind(TunnelBinding binding) {
    return isolated(shared_from_this(), &TunnelEngine::doBind, std::move(binding));
}

asio::awaitable<void> TunnelEngine::doBind(TunnelBinding binding) {
    transport_ = std::move(binding.transport);
    role_ = binding.role;
    tunnelKey_ = std::move(binding.tunnelKey);
    requestHandler_ = std::move(binding.requestHandler);
    notifyHandler_ = std::move(binding.notifyHandler);
    start();
    co_return;
}

void TunnelEngine::start() {
    if (reading_) {
        return;
    }
    reading_ = true;
    spawnIsolated(shared_from_this(), &TunnelEngine::readLoop, transport_, readBinding_);
}

asio::awaitable<void> TunnelEngine::unbind() {
    return isolated(shared_from_this(), &TunnelEngine::doUnbind);
}

asio::awaitable<void> TunnelEngine::doUnbind() {
    unbindNow();
    co_return;
}

void TunnelEngine::unbindNow() {
    // The read loop cannot be interrupted inside a receive; it sees the new binding
    // number when the receive returns and ends quietly.
    ++readBinding_;
    reading_ = false;
    auto pending = std::exchange(pendingResponses_, {});
    for (auto& [flow, caller] : pending) {
        caller.fail(engineError(TunnelEngineError::Case::disconnected));
    }
    notifyQueue_.clear();
    transport_.reset();
    role_.reset();
    tunnelKey_.reset();
    requestHandler_ = nullptr;
    notifyHandler_ = nullptr;
}

asio::awaitable<void> TunnelEngine::failAllPending(TunnelEngineError error) {
    return isolated(shared_from_this(), &TunnelEngine::doFailAllPending, std::move(error));
}

asio::awaitable<void> TunnelEngine::doFailAllPending(TunnelEngineError error) {
    failAllPendingNow(error);
    co_return;
}

void TunnelEngine::failAllPendingNow(const TunnelEngineError& error) {
    auto pending = std::exchange(pendingResponses_, {});
    for (auto& [flow, caller] : pending) {
        caller.fail(error);
    }
    unbindNow();
}

asio::awaitable<TunnelMessage> TunnelEngine::request(std::uint16_t code, SharedBytes payload) {
    return awaitResponse(
        isolated(shared_from_this(), &TunnelEngine::doRequest, code, std::move(payload)));
}

asio::awaitable<runtime::OnceReply<TunnelMessage>> TunnelEngine::send(std::uint16_t code,
                                                                      SharedBytes payload) {
    return isolated(shared_from_this(), &TunnelEngine::doRequest, code, std::move(payload));
}

asio::awaitable<TunnelMessage> TunnelEngine::awaitResponse(
    asio::awaitable<runtime::OnceReply<TunnelMessage>> registered) {
    auto caller = co_await std::move(registered);
    co_return co_await std::move(caller).wait();
}

asio::awaitable<runtime::OnceReply<TunnelMessage>> TunnelEngine::doRequest(std::uint16_t code,
                                                                           SharedBytes payload) {
    if (!transport_ || role_ != TunnelEndpointRole::client) {
        throw engineError(TunnelEngineError::Case::notBound);
    }
    if (payload.size() > maxFramePayload) {
        throw engineError(TunnelEngineError::Case::payloadTooLarge);
    }
    std::uint32_t flow = takeFlowValue(nextFlowID_);
    auto header = encodeFrameHeader(FrameKind::request, code, flow, payload.size());
    if (!header) {
        throw engineError(TunnelEngineError::Case::invalidFrame);
    }
    runtime::OnceReply<TunnelMessage> caller;
    registerPending(flow, caller);
    spawnIsolated(shared_from_this(), &TunnelEngine::sendRequest, transport_, flow,
                  std::move(*header), std::move(payload));
    co_return caller;
}

void TunnelEngine::registerPending(std::uint32_t flow,
                                   const runtime::OnceReply<TunnelMessage>& caller) {
    assertIsolated();
    pendingResponses_.insert_or_assign(flow, caller);
}

asio::awaitable<void> TunnelEngine::sendRequest(Transport transport, std::uint32_t flow,
                                                Bytes header, SharedBytes payload) {
    std::exception_ptr failure;
    try {
        co_await transport->send(std::move(header), std::move(payload));
    } catch (...) {
        failure = std::current_exception();
    }
    if (!failure) {
        co_return;
    }
    // Only this caller learns of its failed write; the tunnel stays bound.
    auto entry = pendingResponses_.extract(flow);
    if (!entry.empty()) {
        entry.mapped().fail(failure);
    }
}

asio::awaitable<void> TunnelEngine::readLoop(Transport transport, std::uint64_t binding) {
    try {
        for (;;) {
            Bytes header = co_await transport->receive(kFrameHeaderSize);
            if (binding != readBinding_) {
                co_return;
            }
            FrameHeader parsed = parseFrameHeader(header);
            Bytes payload;
            if (parsed.length != 0) {
                payload = co_await transport->receive(parsed.length);
                if (binding != readBinding_) {
                    co_return;
                }
            }
            handleFrame(parsed, std::move(payload));
        }
    } catch (...) {
        // Waiting callers learn only that the tunnel is gone, whatever the cause.
    }
    if (binding == readBinding_) {
        failAllPendingNow(engineError(TunnelEngineError::Case::disconnected));
    }
}

void TunnelEngine::handleFrame(const FrameHeader& header, Bytes payload) {
    if (role_ == TunnelEndpointRole::client) {
        switch (header.kind) {
            case FrameKind::push:
                if (notifyHandler_) {
                    notifyHandler_(header.code, std::move(payload));
                }
                return;
            case FrameKind::response: {
                auto entry = pendingResponses_.extract(header.flow);
                if (entry.empty()) {
                    throw TunnelEngineError::unknownFlow(header.flow);
                }
                entry.mapped().resume(TunnelMessage{header.code, std::move(payload)});
                return;
            }
            default:
                throw engineError(TunnelEngineError::Case::protocolViolation);
        }
    }
    if (role_ == TunnelEndpointRole::server && header.kind == FrameKind::request) {
        if (header.flow == 0) {
            throw engineError(TunnelEngineError::Case::invalidFrame);
        }
        ++handlingRequestCount_;
        spawnIsolated(shared_from_this(), &TunnelEngine::answerRequest, transport_, readBinding_,
                      header.code, header.flow, std::move(payload));
        return;
    }
    throw engineError(TunnelEngineError::Case::protocolViolation);
}

asio::awaitable<void> TunnelEngine::answerRequest(Transport transport, std::uint64_t binding,
                                                  std::uint16_t code, std::uint32_t flow,
                                                  Bytes payload) {
    bool failed = false;
    try {
        TunnelMessage answer{1, {}};
        if (auto handler = requestHandler_) {
            answer = co_await handler(code, std::move(payload));
        }
        auto header =
            encodeFrameHeader(FrameKind::response, answer.code, flow, answer.payload.size());
        if (header) {
            co_await transport->send(std::move(*header), std::move(answer.payload));
        } else {
            failed = true;
        }
    } catch (...) {
        failed = true;
    }
    --handlingRequestCount_;
    if (failed && binding == readBinding_ && transport_) {
        failAllPendingNow(engineError(TunnelEngineError::Case::disconnected));
    }
    try {
        co_await flushNotifyQueue();
    } catch (const TunnelEngineError&) {
        // The push in flight is lost; a dead connection is the read loop's to notice.
    }
}

asio::awaitable<void> TunnelEngine::enqueuePush(std::uint16_t code, Bytes payload) {
    return isolated(shared_from_this(), &TunnelEngine::doEnqueuePush, code, std::move(payload));
}

asio::awaitable<void> TunnelEngine::doEnqueuePush(std::uint16_t code, Bytes payload) {
    notifyQueue_.push_back(TunnelMessage{code, std::move(payload)});
    try {
        co_await flushNotifyQueue();
    } catch (const TunnelEngineError&) {
        // Same as after an answer: the item is lost, the tunnel stays bound.
    }
}

asio::awaitable<void> TunnelEngine::flushNotifyQueue() {
    auto mayFlush = [this] {
        return role_ == TunnelEndpointRole::server && handlingRequestCount_ == 0 && !isSending_ &&
               !notifyQueue_.empty() && transport_;
    };
    while (mayFlush()) {
        TunnelMessage item = std::move(notifyQueue_.front());
        notifyQueue_.pop_front();
        std::uint32_t flow = takeFlowValue(nextFlowID_);
        auto header = encodeFrameHeader(FrameKind::push, item.code, flow, item.payload.size());
        if (!header) {
            continue;
        }
        isSending_ = true;
        Transport transport = transport_;
        bool sent = true;
        try {
            co_await transport->send(std::move(*header), std::move(item.payload));
        } catch (...) {
            sent = false;
        }
        isSending_ = false;
        if (!sent) {
            throw engineError(TunnelEngineError::Case::disconnected);
        }
        if (!transport_ && !notifyQueue_.empty()) {
            throw engineError(TunnelEngineError::Case::notBound);
        }
    }
}

asio::awaitable<std::optional<std::string>> TunnelEngine::tunnelKey() {
    return isolated(shared_from_this(), &TunnelEngine::doTunnelKey);
}

asio::awaitable<std::optional<std::string>> TunnelEngine::doTunnelKey() {
    co_return tunnelKey_;
}

asio::awaitable<std::optional<TunnelEndpointRole>> TunnelEngine::role() {
    return isolated(shared_from_this(), &TunnelEngine::doRole);
}

asio::awaitable<std::optional<TunnelEndpointRole>> TunnelEngine::doRole() {
    co_return role_;
}

asio::awaitable<int> TunnelEngine::handlingRequestCount() {
    return isolated(shared_from_this(), &TunnelEngine::doHandlingRequestCount);
}

asio::awaitable<int> TunnelEngine::doHandlingRequestCount() {
    co_return handlingRequestCount_;
}

}  // namespace skiff::tunnel
