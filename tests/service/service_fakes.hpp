#pragma once
// Plain fakes of the client side and the USB layer, and the core behind its delegate as
// the bus adapter drives it, for the service core's tests.

#include <gtest/gtest.h>

#include <asio.hpp>
#include <atomic>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "common/bridge_protocols.hpp"
#include "common/io_runtime.hpp"
#include "common/run_sync.hpp"
#include "service/bridge_core.hpp"
#include "service/service_delegate.hpp"
#include "service/usbmux_link.hpp"

namespace skiff::service::testing {

struct Notification {
    std::int64_t message;
    std::string body;
};

// The arguments a call hands its reply, waited for within the usual bound.
template <class... Args>
class Answer {
public:
    std::function<void(Args...)> reply() {
        return [promise = promise_](Args... args) { promise->set_value({std::move(args)...}); };
    }
    std::tuple<Args...> get() {
        if (!skiff::testing::readyInTime(future_)) {
            throw std::runtime_error("no reply in time");
        }
        return future_.get();
    }
    auto first() { return std::get<0>(get()); }

private:
    std::shared_ptr<std::promise<std::tuple<Args...>>> promise_ =
        std::make_shared<std::promise<std::tuple<Args...>>>();
    std::future<std::tuple<Args...>> future_ = promise_->get_future();
};

// A client that records what the service calls on it and answers at once, or holds its
// ingest replies when told to.
class FakeClient : public HarborBridgeClientProtocol {
public:
    void echo(std::function<void()> reply) override {
        ++echoes;
        reply();
    }
    void benchmarkIngest(Bytes data, std::function<void(std::uint64_t)> reply) override {
        ingested.push_back(data.size());
        if (holdIngest) {
            heldIngest = [reply, n = data.size()] { reply(n); };
        } else {
            reply(data.size());
        }
    }
    void runExtToHostPing(std::int64_t value, std::function<void(double)> reply) override {
        reply(static_cast<double>(value) / 2);
    }
    void benchmarkSendChunks(std::uint64_t size, std::uint64_t count,
                             std::function<void(double)> reply) override {
        reply(static_cast<double>(size * count));
    }
    void notifyClient(std::int64_t message, Bytes param) override {
        std::lock_guard guard(mutex);
        notifications.push_back({message, std::string(param.begin(), param.end())});
    }

    std::vector<Notification> received() const {
        std::lock_guard guard(mutex);
        return notifications;
    }

    mutable std::mutex mutex;
    std::vector<Notification> notifications;  // arrive from the core's strand
    // The rest is filled by calls the core makes on the test's own thread.
    std::vector<std::size_t> ingested;
    std::atomic<int> echoes = 0;
    bool holdIngest = false;
    std::function<void()> heldIngest;
};

class FakeConnection : public ClientConnection {
public:
    std::shared_ptr<FakeClient> client = std::make_shared<FakeClient>();

    void setExportedObject(std::shared_ptr<HarborBridgeHostProtocol> host) override {
        host_ = std::move(host);
    }
    HarborBridgeHostProtocol* exportedObject() const override { return host_.get(); }
    void setInvalidationHandler(std::function<void()> handler) override {
        invalidation_ = std::move(handler);
    }
    std::shared_ptr<HarborBridgeClientProtocol> remoteObjectProxy(
        std::function<void(const ClientCallFailure&)>) override {
        return client;
    }

    HarborBridgeHostProtocol& host() { return *host_; }
    void invalidate() {
        if (auto handler = std::exchange(invalidation_, nullptr)) {
            handler();
        }
    }

private:
    std::shared_ptr<HarborBridgeHostProtocol> host_;
    std::function<void()> invalidation_;
};

class FakeUsbMux : public UsbMuxLink {
public:
    asio::awaitable<void> setDeviceEventHandler(DeviceEventHandler handler) override {
        std::lock_guard guard(mutex);
        this->handler = std::move(handler);
        co_return;
    }
    asio::awaitable<void> start() override {
        ++starts;
        if (failStart) {
            throw std::runtime_error("manager did not start");
        }
        co_return;
    }
    asio::awaitable<SpeedTestMeasurement> runSpeedTestRound(std::uint16_t port,
                                                            std::uint64_t bytes) override {
        {
            std::lock_guard guard(mutex);
            rounds.emplace_back(port, bytes);
        }
        if (duringRound) {
            co_await duringRound();
        }
        if (failure) {
            throw *failure;
        }
        co_return measurement;
    }

    std::mutex mutex;
    DeviceEventHandler handler;
    std::atomic<int> starts = 0;
    bool failStart = false;
    std::vector<std::pair<std::uint16_t, std::uint64_t>> rounds;
    SpeedTestMeasurement measurement;
    std::optional<SpeedTestError> failure;
    std::function<asio::awaitable<void>()> duringRound;
};

class CoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        runtime.start();
        BridgeCollaborators collaborators;
        collaborators.executor = runtime.executor();
        collaborators.hub = hub;
        collaborators.usbMux = usbMux;
        complete(collaborators);
        core = std::make_shared<BridgeCore>(collaborators);
        delegate = std::make_shared<ServiceDelegate>(core);
    }
    void TearDown() override {
        runtime.stop();
        // A connection holds itself through its handler until the peer goes.
        for (auto& connection : connections) {
            connection->invalidate();
        }
    }
    // Adds what a test's core needs beyond the executor and the USB layer.
    virtual void complete(BridgeCollaborators&) {}

    std::shared_ptr<FakeConnection> connect() {
        auto connection = std::make_shared<FakeConnection>();
        connections.push_back(connection);
        EXPECT_TRUE(delegate->shouldAcceptNewConnection(connection));
        return connection;
    }

    runtime::IoRuntime runtime;
    std::shared_ptr<NotificationHub> hub = std::make_shared<NotificationHub>(runtime.executor());
    std::shared_ptr<FakeUsbMux> usbMux = std::make_shared<FakeUsbMux>();
    std::shared_ptr<BridgeCore> core;
    std::shared_ptr<ServiceDelegate> delegate;
    std::vector<std::shared_ptr<FakeConnection>> connections;
};

}  // namespace skiff::service::testing
