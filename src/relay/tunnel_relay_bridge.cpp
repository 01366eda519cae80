#include "relay/tunnel_relay_bridge.hpp"

#include <exception>
#include <string>
#include <utility>

#include "common/bridge_messages.hpp"
#include "common/log.hpp"
#include "relay/relay_schema.hpp"
#include "tunnel/tunnel_errors.hpp"
#include "tunnel/tunnel_frame.hpp"

namespace skiff::relay {

using tunnel::TunnelEngineError;

namespace {
constexpr auto raw(UsbMuxRelayError e) {
    return static_cast<std::int64_t>(e);
}
}  // namespace

TunnelRelayBridge::TunnelRelayBridge(asio::any_io_executor executor,
                                     std::shared_ptr<tunnel::TunnelEngine> engine,
                                     std::shared_ptr<TunnelOpener> opener,
                                     std::shared_ptr<PushSink> sink)
    : Actor(executor),
      engine_(std::move(engine)),
      opener_(std::move(opener)),
      sink_(std::move(sink)),
      executor_(strand().get_inner_executor()) {}

asio::awaitable<RelayOutcome> TunnelRelayBridge::relay(std::uint16_t port, std::uint16_t code,
                                                       SharedBytes payload) {
    return isolated(shared_from_this(), &TunnelRelayBridge::doRelay, port, code,
                    std::move(payload));
}

asio::awaitable<void> TunnelRelayBridge::unbindAfterFailure(RelayOutcome outcome) {
    return isolated(shared_from_this(), &TunnelRelayBridge::doUnbindAfterFailure,
                    std::move(outcome));
}

asio::awaitable<void> TunnelRelayBridge::dropBinding() {
    return isolated(shared_from_this(), &TunnelRelayBridge::doDropBinding);
}

asio::awaitable<void> TunnelRelayBridge::invalidateTunnel(std::uint16_t port) {
    return isolated(shared_from_this(), &TunnelRelayBridge::doInvalidateTunnel, port);
}

asio::awaitable<void> TunnelRelayBridge::beginExclusiveUse(std::uint16_t port) {
    return isolated(shared_from_this(), &TunnelRelayBridge::doBeginExclusiveUse, port);
}

asio::awaitable<void> TunnelRelayBridge::endExclusiveUse(std::uint16_t port) {
    return isolated(shared_from_this(), &TunnelRelayBridge::doEndExclusiveUse, port);
}

asio::awaitable<RelayReply> TunnelRelayBridge::relayForClient(std::uint16_t code,
                                                              SharedBytes payload) {
    return isolated(shared_from_this(), &TunnelRelayBridge::doRelayForClient, code,
                    std::move(payload));
}

asio::awaitable<RelayReply> TunnelRelayBridge::doRelayForClient(std::uint16_t code,
                                                                SharedBytes payload) {
    if (payload.size() > tunnel::maxFramePayload) {
        co_return RelayReply{{}, raw(UsbMuxRelayError::payloadTooLarge), 0};
    }
    RelayOutcome outcome = co_await doRelay(service::kCompanionAppPort, code, std::move(payload));
    if (outcome.response) {
        co_return replyFor(std::move(*outcome.response));
    }
    const std::int64_t status = outcome.failureStatus;
    co_await doUnbindAfterFailure(std::move(outcome));
    co_return RelayReply{{}, status, 0};
}

RelayReply TunnelRelayBridge::replyFor(tunnel::TunnelMessage answer) {
    touchContact();
    // Answer codes the service does not know read as a plain I/O error.
    const std::int64_t status =
        answer.code > 9 ? static_cast<std::int64_t>(RelayDeviceStatus::ioError) : answer.code;
    if (status == 0) {
        return RelayReply{std::move(answer.payload), raw(UsbMuxRelayError::ok), 0};
    }
    return RelayReply{std::move(answer.payload), raw(UsbMuxRelayError::deviceStatus), status};
}

asio::awaitable<std::vector<RelayReply>> TunnelRelayBridge::relayInOrderForClient(
    std::vector<std::pair<std::uint16_t, SharedBytes>> requests) {
    return isolated(shared_from_this(), &TunnelRelayBridge::doRelayInOrderForClient,
                    std::move(requests));
}

asio::awaitable<std::vector<RelayReply>> TunnelRelayBridge::doRelayInOrderForClient(
    std::vector<std::pair<std::uint16_t, SharedBytes>> requests) {
    std::vector<RelayReply> replies(requests.size());
    RelayOutcome failed;
    const auto binding = co_await ensureBinding(service::kCompanionAppPort);
    if (!binding) {
        for (auto& reply : replies) {
            reply.status = raw(UsbMuxRelayError::notConnected);
        }
        co_return replies;
    }
    failed.binding = *binding;
    // Every request is on its way before the first answer is awaited.
    std::vector<std::optional<runtime::OnceReply<tunnel::TunnelMessage>>> sent(requests.size());
    for (std::size_t i = 0; i < requests.size(); ++i) {
        if (requests[i].second.size() > tunnel::maxFramePayload) {
            replies[i].status = raw(UsbMuxRelayError::payloadTooLarge);
            continue;
        }
        try {
            sent[i] = co_await engine_->send(requests[i].first, std::move(requests[i].second));
        } catch (const std::exception&) {
            replies[i].status = raw(UsbMuxRelayError::notConnected);
            failed.failureStatus = replies[i].status;
        }
    }
    for (std::size_t i = 0; i < sent.size(); ++i) {
        if (!sent[i]) {
            continue;
        }
        try {
            replies[i] = replyFor(co_await std::move(*sent[i]).wait());
        } catch (const std::exception&) {
            replies[i].status = raw(UsbMuxRelayError::transportFailed);
            failed.failureStatus = replies[i].status;
        }
    }
    if (failed.failureStatus != 0) {
        co_await doUnbindAfterFailure(std::move(failed));
    }
    co_return replies;
}

std::optional<TunnelRelayBridge::Clock::time_point> TunnelRelayBridge::lastIOSContact() const {
    std::lock_guard guard(contactLock_);
    return lastIOSContact_;
}

void TunnelRelayBridge::touchContact() {
    std::lock_guard guard(contactLock_);
    lastIOSContact_ = Clock::now();
}

asio::awaitable<RelayOutcome> TunnelRelayBridge::doRelay(std::uint16_t port, std::uint16_t code,
                                                         SharedBytes payload) {
    RelayOutcome outcome;
    const auto binding = co_await ensureBinding(port);
    if (!binding) {
        outcome.failureStatus = raw(UsbMuxRelayError::notConnected);
        co_return outcome;
    }
    outcome.binding = *binding;
    try {
        outcome.response = co_await engine_->request(code, std::move(payload));
    } catch (const TunnelEngineError& e) {
        outcome.failureStatus = e.errorCase() == TunnelEngineError::Case::notBound
                                    ? raw(UsbMuxRelayError::notConnected)
                                    : raw(UsbMuxRelayError::transportFailed);
    } catch (const std::exception&) {
        outcome.failureStatus = raw(UsbMuxRelayError::transportFailed);
    }
    co_return outcome;
}

asio::awaitable<void> TunnelRelayBridge::doUnbindAfterFailure(RelayOutcome outcome) {
    // A binding made after the failure is healthy; leave it.
    if (outcome.binding != binding_) {
        co_return;
    }
    co_await unbindAndClose();
}

asio::awaitable<void> TunnelRelayBridge::doDropBinding() {
    co_await engine_->failAllPending(TunnelEngineError(TunnelEngineError::Case::disconnected));
    co_await unbindAndClose();
}

asio::awaitable<void> TunnelRelayBridge::doInvalidateTunnel(std::uint16_t port) {
    co_await doDropBinding();
    if (!exclusiveUse_.ownsLock()) {
        co_await opener_->invalidate(port);
    }
}

asio::awaitable<void> TunnelRelayBridge::doBeginExclusiveUse(std::uint16_t port) {
    auto use = co_await tunnelUse_.lock();
    co_await unbindAndClose();
    co_await opener_->invalidate(port);
    exclusiveUse_ = std::move(use);
}

asio::awaitable<void> TunnelRelayBridge::doEndExclusiveUse(std::uint16_t port) {
    co_await opener_->invalidate(port);
    exclusiveUse_.unlock();
}

asio::awaitable<std::optional<std::uint64_t>> TunnelRelayBridge::ensureBinding(std::uint16_t port) {
    const std::string key = "relay:" + std::to_string(port);
    auto use = co_await tunnelUse_.lock();
    const auto current = co_await engine_->tunnelKey();
    if (current == key) {
        co_return binding_;
    }
    // The old binding's number is retired before the first co_await: a failure of one of its
    // requests that arrives while this one binds must not unbind or close the new one.
    const std::uint64_t number = ++binding_;
    std::shared_ptr<tunnel::TunnelTransport> transport;
    try {
        // Whatever was bound before is dead or for another key: drop its connection first,
        // so that the open below connects anew instead of finding the dead one.
        co_await unbindAndClose();
        {
            // Another failed request may have taken the old transport and still be closing
            // it; an open before that close ends would be handed the dying connection.
            auto closed = co_await closing_.lock();
        }
        transport = co_await opener_->open(port);
        if (transport) {
            co_await engine_->unbind();
            tunnel::TunnelBinding binding;
            binding.transport = transport;
            binding.role = tunnel::TunnelEndpointRole::client;
            binding.tunnelKey = key;
            binding.notifyHandler = [weak = weak_from_this()](std::uint16_t code, Bytes body) {
                if (auto self = weak.lock()) {
                    self->handlePush(code, std::move(body));
                }
            };
            transport_ = transport;
            co_await engine_->bind(std::move(binding));
        }
    } catch (const std::exception& e) {
        log::xpc().error("relay tunnel bind failed: %{public}s", e.what());
        transport = nullptr;
    }
    if (!transport) {
        co_return std::nullopt;
    }
    co_return number;
}

asio::awaitable<void> TunnelRelayBridge::unbindAndClose() {
    // Taken before the co_await: a binding made meanwhile keeps its own transport.
    auto transport = std::exchange(transport_, nullptr);
    auto closing = co_await closing_.lock();
    co_await engine_->unbind();
    if (transport) {
        co_await transport->close();
    }
}

void TunnelRelayBridge::handlePush(std::uint16_t code, Bytes body) {
    touchContact();
    const auto message = service::notifyMessageFromRaw(code);
    if (!message || !sink_) {
        return;
    }
    auto forward = [this](std::uint16_t c, Bytes b) { sink_->forwardToExtension(c, std::move(b)); };
    // The handlers may take their time; the read path must not wait for them.
    auto handOver = [this](void (PushSink::*handler)(Bytes), Bytes b) {
        asio::post(executor_, [sink = sink_, handler, b = std::move(b)]() mutable {
            ((*sink).*handler)(std::move(b));
        });
    };
    switch (*message) {
        case service::BridgeNotifyMessage::bridgeStateChanged:
        case service::BridgeNotifyMessage::fileIOProgress:
            forward(code, std::move(body));
            break;
        case service::BridgeNotifyMessage::mountControl:
            forward(code, body);
            handOver(&PushSink::mountControl, std::move(body));
            break;
        case service::BridgeNotifyMessage::itemMutation:
            handOver(&PushSink::itemMutation, std::move(body));
            break;
    }
}

}  // namespace skiff::relay
