#include "service/dbus/harbor_client.hpp"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <tuple>

#include "service/dbus/bus_calls.hpp"
#include "service/dbus/bus_loop.hpp"
#include "service/dbus/bus_names.hpp"
#include "service/dbus/glue/bridgeclient_adaptor.h"
#include "service/dbus/glue/bridgehost_proxy.h"

namespace skiff::service::dbus {

namespace {

using HostGlue = ProxyGlue<Mox::Harbor::BridgeHost_proxy>;

// Serves the caller's client implementation on the bus.
class ClientAdaptor final : public sdbus::AdaptorInterfaces<Mox::Harbor::BridgeClient_adaptor> {
public:
    ClientAdaptor(std::shared_ptr<BusLoop> loop,
                  std::shared_ptr<HarborBridgeClientProtocol> implementation)
        : AdaptorInterfaces(loop->connection(), kClientPath),
          loop_(std::move(loop)),
          implementation_(std::move(implementation)) {
        registerAdaptor();
    }
    ~ClientAdaptor() { unregisterAdaptor(); }

private:
    void Echo(sdbus::Result<>&& result) override {
        answerLater(loop_, std::move(result),
                    [this](std::function<void()> reply) { implementation_->echo(reply); });
    }

    void BenchmarkIngest(sdbus::Result<uint64_t>&& result, std::vector<uint8_t> data) override {
        answerLater(loop_, std::move(result), [&](std::function<void(std::uint64_t)> reply) {
            implementation_->benchmarkIngest(std::move(data), std::move(reply));
        });
    }

    void RunExtToHostPing(sdbus::Result<double>&& result, int64_t value) override {
        answerLater(loop_, std::move(result), [&](std::function<void(double)> reply) {
            implementation_->runExtToHostPing(value, std::move(reply));
        });
    }

    void BenchmarkSendChunks(sdbus::Result<double>&& result, uint64_t chunkSize,
                             uint64_t chunkCount) override {
        answerLater(loop_, std::move(result), [&](std::function<void(double)> reply) {
            implementation_->benchmarkSendChunks(chunkSize, chunkCount, std::move(reply));
        });
    }

    void NotifyClient(const int64_t& message, const std::vector<uint8_t>& param) override {
        try {
            implementation_->notifyClient(message, param);
        } catch (const std::exception& e) {
            log::xpc().error("NotifyClient failed: %{public}s", e.what());
        }
    }

    std::shared_ptr<BusLoop> loop_;
    std::shared_ptr<HarborBridgeClientProtocol> implementation_;
};

// The host seen from a client; each call is made on the client's bus thread.
class RemoteHostProxy final : public HarborBridgeHostProtocol {
public:
    RemoteHostProxy(std::shared_ptr<ProxyLink<HostGlue>> link, std::uint64_t timeoutUsec,
                    std::function<void(const BusError&)> errorHandler)
        : link_(std::move(link)),
          timeoutUsec_(timeoutUsec),
          onError_([errorHandler = std::move(errorHandler)](const sdbus::Error& error) {
              if (errorHandler) {
                  errorHandler(BusError(error.getName(), error.getMessage()));
              }
          }) {}

    void registerClient(std::int64_t role, std::function<void(bool)> reply) override {
        call("RegisterClient", std::move(reply), role);
    }
    void getXPCServiceVersion(std::function<void(std::int64_t)> reply) override {
        call("GetXPCServiceVersion", std::move(reply));
    }
    void echo(std::function<void()> reply) override { call("Echo", std::move(reply)); }
    void ping(std::int64_t value, std::function<void(bool)> reply) override {
        call("Ping", std::move(reply), value);
    }
    void benchmarkIngest(Bytes data, std::function<void(std::uint64_t)> reply) override {
        call("BenchmarkIngest", std::move(reply), std::move(data));
    }
    void requestHostToExtThroughput(std::uint64_t chunkSize, std::uint64_t chunkCount,
                                    std::function<void(double)> reply) override {
        call("RequestHostToExtThroughput", std::move(reply), chunkSize, chunkCount);
    }
    void requestExtToHostPing(std::int64_t value, std::function<void(double)> reply) override {
        call("RequestExtToHostPing", std::move(reply), value);
    }
    void requestExtToHostThroughput(std::uint64_t chunkSize, std::uint64_t chunkCount,
                                    std::function<void(double)> reply) override {
        call("RequestExtToHostThroughput", std::move(reply), chunkSize, chunkCount);
    }
    void runUsbMuxSpeedTest(std::function<void(bool, std::string)> reply) override {
        call("RunUsbMuxSpeedTest", std::move(reply));
    }
    void relayToUsbMux(std::int64_t selector, Bytes param,
                       std::function<void(Bytes, std::int64_t, std::int64_t)> reply) override {
        call("RelayToUsbMux", std::move(reply), selector, std::move(param));
    }
    void requestFileIO(std::int64_t operation, Bytes param,
                       std::function<void(Bytes, std::int64_t)> reply) override {
        call("RequestFileIO", std::move(reply), operation, std::move(param));
    }
    void filesystemDidUnmount() override {
        link_->with(
            [onError = onError_](HostGlue& glue) {
                try {
                    glue.FilesystemDidUnmount();
                } catch (const sdbus::Error& e) {
                    onError(e);
                }
            },
            onError_);
    }
    void shutdown(std::function<void(bool)> reply) override { call("Shutdown", std::move(reply)); }

private:
    template <typename... R, typename... A>
    void call(const char* method, std::function<void(R...)> reply, A... args) {
        link_->with(
            [method, timeout = timeoutUsec_, reply = std::move(reply), onError = onError_,
             args...](HostGlue& glue) {
                callAsync(glue.raw(), kHostInterface, method, timeout, reply, onError, args...);
            },
            onError_);
    }

    std::shared_ptr<ProxyLink<HostGlue>> link_;
    std::uint64_t timeoutUsec_;
    std::function<void(const sdbus::Error&)> onError_;
};

}  // namespace

struct HarborClient::Impl {
    Impl(std::shared_ptr<HarborBridgeClientProtocol> exported, const std::string& busAddress)
        : loop(std::make_shared<BusLoop>(busAddress)),
          name(loop->connection().getUniqueName()),
          hostLink(std::make_shared<ProxyLink<HostGlue>>(loop, kServiceName, kHostPath)) {
        if (exported) {
            try {
                adaptor = std::make_unique<ClientAdaptor>(loop, std::move(exported));
            } catch (const sdbus::Error& e) {
                throw BusError(e.getName(), e.getMessage());
            }
        }
        loop->start();
    }

    ~Impl() {
        loop->stop();
        adaptor.reset();
    }

    std::shared_ptr<HarborBridgeHostProtocol> host(
        std::function<void(const BusError&)> errorHandler) {
        const auto usec = std::chrono::duration_cast<std::chrono::microseconds>(timeout.load());
        return std::make_shared<RemoteHostProxy>(hostLink, static_cast<std::uint64_t>(usec.count()),
                                                 std::move(errorHandler));
    }

    // Starts one call through `start` and waits for its reply or error.
    template <typename... R, typename Start>
    std::tuple<R...> await(Start&& start) {
        if (loop->inLoopThread()) {
            throw std::logic_error("blocking host call from the client's bus thread");
        }
        struct Outcome {
            std::mutex mutex;
            std::condition_variable arrived;
            std::optional<std::tuple<R...>> values;
            std::optional<BusError> error;
        };
        auto outcome = std::make_shared<Outcome>();
        auto proxy = host([outcome](const BusError& error) {
            std::lock_guard guard(outcome->mutex);
            outcome->error.emplace(error);
            outcome->arrived.notify_all();
        });
        start(*proxy, std::function<void(R...)>([outcome](R... values) {
            std::lock_guard guard(outcome->mutex);
            outcome->values.emplace(std::move(values)...);
            outcome->arrived.notify_all();
        }));
        std::unique_lock lock(outcome->mutex);
        // The bus reports its own time-out; this only guards against a lost loop.
        const auto limit = timeout.load() * 2 + std::chrono::seconds(5);
        if (!outcome->arrived.wait_for(lock, limit,
                                       [&] { return outcome->values || outcome->error; })) {
            throw BusError(kErrorNoReply, "no reply from the service");
        }
        if (outcome->error) {
            throw *outcome->error;
        }
        return std::move(*outcome->values);
    }

    std::shared_ptr<BusLoop> loop;
    std::string name;
    std::shared_ptr<ProxyLink<HostGlue>> hostLink;
    std::unique_ptr<ClientAdaptor> adaptor;
    std::atomic<std::chrono::milliseconds> timeout{std::chrono::seconds(25)};
};

HarborClient::HarborClient(std::shared_ptr<HarborBridgeClientProtocol> exported,
                           const std::string& busAddress)
    : impl_(std::make_unique<Impl>(std::move(exported), busAddress)) {}

HarborClient::~HarborClient() = default;

std::string HarborClient::uniqueName() const {
    return impl_->name;
}

void HarborClient::setCallTimeout(std::chrono::milliseconds timeout) {
    impl_->timeout = timeout;
}

std::shared_ptr<HarborBridgeHostProtocol> HarborClient::host(
    std::function<void(const BusError&)> errorHandler) {
    return impl_->host(std::move(errorHandler));
}

bool HarborClient::registerClient(std::int64_t role) {
    return std::get<0>(impl_->await<bool>(
        [&](HarborBridgeHostProtocol& h, auto reply) { h.registerClient(role, reply); }));
}

std::int64_t HarborClient::getXPCServiceVersion() {
    return std::get<0>(impl_->await<std::int64_t>(
        [](HarborBridgeHostProtocol& h, auto reply) { h.getXPCServiceVersion(reply); }));
}

void HarborClient::echo() {
    impl_->await<>([](HarborBridgeHostProtocol& h, auto reply) { h.echo(reply); });
}

bool HarborClient::ping(std::int64_t value) {
    return std::get<0>(
        impl_->await<bool>([&](HarborBridgeHostProtocol& h, auto reply) { h.ping(value, reply); }));
}

std::uint64_t HarborClient::benchmarkIngest(Bytes data) {
    return std::get<0>(impl_->await<std::uint64_t>([&](HarborBridgeHostProtocol& h, auto reply) {
        h.benchmarkIngest(std::move(data), reply);
    }));
}

double HarborClient::requestHostToExtThroughput(std::uint64_t chunkSize, std::uint64_t chunkCount) {
    return std::get<0>(impl_->await<double>([&](HarborBridgeHostProtocol& h, auto reply) {
        h.requestHostToExtThroughput(chunkSize, chunkCount, reply);
    }));
}

double HarborClient::requestExtToHostPing(std::int64_t value) {
    return std::get<0>(impl_->await<double>(
        [&](HarborBridgeHostProtocol& h, auto reply) { h.requestExtToHostPing(value, reply); }));
}

double HarborClient::requestExtToHostThroughput(std::uint64_t chunkSize, std::uint64_t chunkCount) {
    return std::get<0>(impl_->await<double>([&](HarborBridgeHostProtocol& h, auto reply) {
        h.requestExtToHostThroughput(chunkSize, chunkCount, reply);
    }));
}

std::pair<bool, std::string> HarborClient::runUsbMuxSpeedTest() {
    auto [ok, text] = impl_->await<bool, std::string>(
        [](HarborBridgeHostProtocol& h, auto reply) { h.runUsbMuxSpeedTest(reply); });
    return {ok, std::move(text)};
}

HarborClient::RelayReply HarborClient::relayToUsbMux(std::int64_t selector, Bytes param) {
    auto [response, status, code] = impl_->await<Bytes, std::int64_t, std::int64_t>(
        [&](HarborBridgeHostProtocol& h, auto reply) {
            h.relayToUsbMux(selector, std::move(param), reply);
        });
    return {std::move(response), status, code};
}

HarborClient::FileIOReply HarborClient::requestFileIO(std::int64_t operation, Bytes param) {
    auto [response, status] =
        impl_->await<Bytes, std::int64_t>([&](HarborBridgeHostProtocol& h, auto reply) {
            h.requestFileIO(operation, std::move(param), reply);
        });
    return {std::move(response), status};
}

void HarborClient::filesystemDidUnmount() {
    impl_->host(nullptr)->filesystemDidUnmount();
}

bool HarborClient::shutdown() {
    return std::get<0>(
        impl_->await<bool>([](HarborBridgeHostProtocol& h, auto reply) { h.shutdown(reply); }));
}

}  // namespace skiff::service::dbus
