#include "service/dbus/harbor_client.hpp"

#include <condition_variable>
#include <cstring>
#include <future>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <tuple>

#include "common/io_runtime.hpp"
#include "service/dbus/bus_calls.hpp"
#include "service/dbus/bus_connection.hpp"
#include "service/dbus/bus_names.hpp"

namespace skiff::service::dbus {

namespace {

using Client = HarborBridgeClientProtocol;

BusError toBusError(const CallError& error) {
    return BusError(error.name, error.text);
}

// Tells the caller of observe() that one match is in place (or failed).
struct MatchInstalled {
    std::promise<int> result;
    int remaining = 0;
    int firstError = 0;
};

// Everything the client's bus callbacks need; lives as long as the connection.
struct ClientSide {
    std::shared_ptr<BusConnection> bus;
    std::shared_ptr<Client> exported;
    HarborClient::Observer observer;
    MatchInstalled* installing = nullptr;  // while observe() waits
};

ClientSide& sideOf(void* userdata) {
    return *static_cast<ClientSide*>(userdata);
}

template <class Replies, class... A, class Invoke>
int serve(sd_bus_message* m, void* userdata, sd_bus_error* error, Invoke invoke) {
    return MethodCall<Replies, A...>::serve(
        m, error,
        [&](sd_bus_message* call) {
            auto& side = sideOf(userdata);
            const char* sender = sd_bus_message_get_sender(call);
            return CallTarget<Client>{side.exported, std::make_shared<PendingCall>(side.bus, call),
                                      sender != nullptr ? sender : ""};
        },
        invoke);
}

int clientEcho(sd_bus_message* m, void* u, sd_bus_error* e) {
    return serve<std::tuple<>>(m, u, e, [](Client& c, auto reply) { c.echo(reply); });
}

int clientBenchmarkIngest(sd_bus_message* m, void* u, sd_bus_error* e) {
    return serve<std::tuple<std::uint64_t>, Bytes>(m, u, e, [](Client& c, Bytes data, auto reply) {
        c.benchmarkIngest(std::move(data), reply);
    });
}

int clientRunExtToHostPing(sd_bus_message* m, void* u, sd_bus_error* e) {
    return serve<std::tuple<double>, std::int64_t>(
        m, u, e,
        [](Client& c, std::int64_t value, auto reply) { c.runExtToHostPing(value, reply); });
}

int clientBenchmarkSendChunks(sd_bus_message* m, void* u, sd_bus_error* e) {
    return serve<std::tuple<double>, std::uint64_t, std::uint64_t>(
        m, u, e, [](Client& c, std::uint64_t size, std::uint64_t count, auto reply) {
            c.benchmarkSendChunks(size, count, reply);
        });
}

int clientNotify(sd_bus_message* m, void* u, sd_bus_error* e) {
    return serve<std::tuple<>, std::int64_t, Bytes>(
        m, u, e, [](Client& c, std::int64_t message, Bytes param, auto reply) {
            c.notifyClient(message, std::move(param));
            reply();
        });
}

const sd_bus_vtable kClientVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_NAMES("Echo", "", "", "", "", clientEcho, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("BenchmarkIngest", "ay", SD_BUS_PARAM(data), "t",
                             SD_BUS_PARAM(byteCount), clientBenchmarkIngest,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("RunExtToHostPing", "x", SD_BUS_PARAM(value), "d",
                             SD_BUS_PARAM(elapsed), clientRunExtToHostPing,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES(
        "BenchmarkSendChunks", "tt", SD_BUS_PARAM(chunkSize) SD_BUS_PARAM(chunkCount), "d",
        SD_BUS_PARAM(result), clientBenchmarkSendChunks, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("NotifyClient", "xay", SD_BUS_PARAM(message) SD_BUS_PARAM(param), "",
                             "", clientNotify,
                             SD_BUS_VTABLE_UNPRIVILEGED | SD_BUS_VTABLE_METHOD_NO_REPLY),
    SD_BUS_VTABLE_END,
};

int onNotification(sd_bus_message* m, void* u, sd_bus_error*) {
    std::int64_t message = 0;
    Bytes param;
    auto& observer = sideOf(u).observer;
    if (observer.notification && wire::readAll(m, message, param) >= 0) {
        observer.notification(message, std::move(param));
    }
    return 0;
}

int onDeviceChanged(sd_bus_message* m, void* u, sd_bus_error*) {
    std::string udid;
    bool attached = false;
    auto& observer = sideOf(u).observer;
    if (observer.deviceChanged && wire::readAll(m, udid, attached) >= 0) {
        observer.deviceChanged(udid, attached);
    }
    return 0;
}

int onRoleChanged(sd_bus_message* m, void* u, sd_bus_error*) {
    std::int64_t role = 0;
    std::string holder, replaced;
    auto& observer = sideOf(u).observer;
    if (observer.roleChanged && wire::readAll(m, role, holder, replaced) >= 0) {
        observer.roleChanged(role, holder, replaced);
    }
    return 0;
}

int onVolumeNotice(sd_bus_message* m, void* u, sd_bus_error*) {
    std::string text;
    auto& observer = sideOf(u).observer;
    if (observer.volumeNotice && wire::readAll(m, text) >= 0) {
        observer.volumeNotice(text);
    }
    return 0;
}

int onServiceOwner(sd_bus_message* m, void* u, sd_bus_error*) {
    std::string name, oldOwner, newOwner;
    auto& observer = sideOf(u).observer;
    if (observer.servicePresence && wire::readAll(m, name, oldOwner, newOwner) >= 0 &&
        name == kServiceName) {
        observer.servicePresence(!newOwner.empty());
    }
    return 0;
}

int onMatchInstalled(sd_bus_message* m, void* u, sd_bus_error*) {
    auto& side = sideOf(u);
    if (side.installing == nullptr) {
        return 0;
    }
    auto& installed = *side.installing;
    if (sd_bus_message_is_method_error(m, nullptr) && installed.firstError == 0) {
        installed.firstError = -sd_bus_message_get_errno(m);
        if (installed.firstError == 0) {
            installed.firstError = -EIO;
        }
    }
    if (--installed.remaining == 0) {
        side.installing = nullptr;
        installed.result.set_value(installed.firstError);
    }
    return 0;
}

// The host seen from a client; each call is made on the client's bus thread.
class RemoteHostProxy final : public HarborBridgeHostProtocol {
public:
    RemoteHostProxy(std::shared_ptr<BusConnection> bus, std::uint64_t timeoutUsec,
                    std::function<void(const BusError&)> errorHandler)
        : bus_(std::move(bus)),
          timeoutUsec_(timeoutUsec),
          onError_([errorHandler = std::move(errorHandler)](const CallError& error) {
              if (errorHandler) {
                  errorHandler(toBusError(error));
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
    void relayToUsbMux(std::int64_t selector, SharedBytes param,
                       std::function<void(Bytes, std::int64_t, std::int64_t)> reply) override {
        call("RelayToUsbMux", std::move(reply), selector, std::move(param));
    }
    void requestFileIO(std::int64_t operation, Bytes param,
                       std::function<void(Bytes, std::int64_t)> reply) override {
        call("RequestFileIO", std::move(reply), operation, std::move(param));
    }
    void relayToUsbMuxInOrder(std::vector<OrderedRelayRequest> requests,
                              std::function<void(std::vector<OrderedRelayAnswer>)> reply) override {
        call("RelayToUsbMuxInOrder", std::move(reply), std::move(requests));
    }
    void filesystemDidUnmount() override {
        bus_->post([bus = bus_, onError = onError_] {
            const int r = sendOneWay(*bus, kServiceName, kHostPath, kHostInterface,
                                     "FilesystemDidUnmount", nullptr);
            if (r < 0) {
                onError({kErrorFailed, std::strerror(-r)});
            }
        });
    }
    void shutdown(std::function<void(bool)> reply) override { call("Shutdown", std::move(reply)); }
    void getStatus(std::function<void(Bytes)> reply) override {
        call("GetStatus", std::move(reply));
    }
    void mountVolume(std::function<void(bool, std::string)> reply) override {
        call("MountVolume", std::move(reply));
    }
    void unmountVolume(bool force, std::function<void(bool, std::string)> reply) override {
        call("UnmountVolume", std::move(reply), force);
    }
    void postVolumeNotice(std::string text) override {
        bus_->post([bus = bus_, onError = onError_, text = std::move(text)] {
            const int r =
                sendOneWay(*bus, kServiceName, kHostPath, kHostInterface, "PostVolumeNotice",
                           [&](sd_bus_message* m) { return wire::appendAll(m, text); });
            if (r < 0) {
                onError({kErrorFailed, std::strerror(-r)});
            }
        });
    }

    template <typename... R, typename... A>
    void call(const char* method, std::function<void(R...)> reply, A... args) {
        bus_->post([bus = bus_, timeout = timeoutUsec_, method, reply = std::move(reply),
                    onError = onError_, args = std::make_tuple(std::move(args)...)] {
            startCall(
                *bus, kServiceName, kHostPath, kHostInterface, method, timeout,
                [&](sd_bus_message* m) {
                    return std::apply([&](const auto&... a) { return wire::appendAll(m, a...); },
                                      args);
                },
                readReply<R...>(reply, onError), onError);
        });
    }

private:
    std::shared_ptr<BusConnection> bus_;
    std::uint64_t timeoutUsec_;
    ErrorHandler onError_;
};

}  // namespace

struct HarborClient::Impl {
    Impl(std::shared_ptr<HarborBridgeClientProtocol> exported, const std::string& busAddress)
        : runtime(1) {
        runtime.start();
        try {
            side.bus = BusConnection::open(runtime.executor(), busAddress);
        } catch (...) {
            runtime.stop();
            throw;
        }
        side.exported = std::move(exported);
        if (side.exported) {
            const int r = sd_bus_add_object_vtable(side.bus->bus(), &objectSlot, kClientPath,
                                                   kClientInterface, kClientVtable, &side);
            if (r < 0) {
                runtime.stop();
                throw BusError(kErrorFailed, std::string("cannot export the client object: ") +
                                                 std::strerror(-r));
            }
        }
        side.bus->start([this] {
            if (auto handler = std::move(onLost)) {
                handler();
            }
        });
    }

    ~Impl() {
        std::promise<void> done;
        side.bus->post([this, &done] {
            for (auto* slot : matchSlots) {
                sd_bus_slot_unref(slot);
            }
            objectSlot = sd_bus_slot_unref(objectSlot);
            done.set_value();
        });
        done.get_future().wait();
        side.bus->close();
        runtime.stop();
    }

    std::shared_ptr<RemoteHostProxy> host(std::function<void(const BusError&)> errorHandler) {
        const auto usec = std::chrono::duration_cast<std::chrono::microseconds>(timeout.load());
        return std::make_shared<RemoteHostProxy>(side.bus, toUsec(usec), std::move(errorHandler));
    }

    // Starts one call through `start` and waits for its reply or error.
    template <typename... R, typename Start>
    std::tuple<R...> await(Start&& start) {
        if (side.bus->inStrand()) {
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

    // A blocking call of a method that is no part of HarborBridgeHostProtocol.
    template <typename... R, typename... A>
    std::tuple<R...> awaitMethod(const char* method, A... args) {
        return await<R...>([&](HarborBridgeHostProtocol& h, std::function<void(R...)> reply) {
            static_cast<RemoteHostProxy&>(h).call(method, std::move(reply), args...);
        });
    }

    void observe(HarborClient::Observer observer) {
        MatchInstalled installed;
        installed.remaining = 5;
        auto result = installed.result.get_future();
        side.bus->post([this, observer = std::move(observer), &installed]() mutable {
            side.observer = std::move(observer);
            side.installing = &installed;
            struct Match {
                const char* sender;
                const char* path;
                const char* interface;
                const char* member;
                sd_bus_message_handler_t handler;
            };
            const Match matches[] = {
                {kServiceName, kHostPath, kHostInterface, kSignalNotification, onNotification},
                {kServiceName, kHostPath, kHostInterface, kSignalDeviceChanged, onDeviceChanged},
                {kServiceName, kHostPath, kHostInterface, kSignalRoleChanged, onRoleChanged},
                {kServiceName, kHostPath, kHostInterface, kSignalVolumeNotice, onVolumeNotice},
                {"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                 "NameOwnerChanged", onServiceOwner},
            };
            for (const auto& match : matches) {
                sd_bus_slot* slot = nullptr;
                const int r = sd_bus_match_signal_async(side.bus->bus(), &slot, match.sender,
                                                        match.path, match.interface, match.member,
                                                        match.handler, onMatchInstalled, &side);
                if (r < 0) {
                    installed.firstError = installed.firstError ? installed.firstError : r;
                    if (--installed.remaining == 0) {
                        side.installing = nullptr;
                        installed.result.set_value(installed.firstError);
                    }
                    continue;
                }
                matchSlots.push_back(slot);
            }
        });
        const int r = result.get();
        if (r < 0) {
            throw BusError(kErrorFailed,
                           std::string("cannot observe the service: ") + std::strerror(-r));
        }
    }

    runtime::IoRuntime runtime;
    ClientSide side;
    sd_bus_slot* objectSlot = nullptr;
    std::vector<sd_bus_slot*> matchSlots;
    std::function<void()> onLost;
    std::atomic<std::chrono::milliseconds> timeout{std::chrono::seconds(25)};
};

HarborClient::HarborClient(std::shared_ptr<HarborBridgeClientProtocol> exported,
                           const std::string& busAddress)
    : impl_(std::make_unique<Impl>(std::move(exported), busAddress)) {}

HarborClient::~HarborClient() = default;

std::string HarborClient::uniqueName() const {
    return impl_->side.bus->uniqueName();
}

void HarborClient::setCallTimeout(std::chrono::milliseconds timeout) {
    impl_->timeout = timeout;
}

void HarborClient::setLostHandler(std::function<void()> onLost) {
    std::promise<void> done;
    impl_->side.bus->post([this, &done, onLost = std::move(onLost)]() mutable {
        impl_->onLost = std::move(onLost);
        done.set_value();
    });
    done.get_future().wait();
}

std::shared_ptr<HarborBridgeHostProtocol> HarborClient::host(
    std::function<void(const BusError&)> errorHandler) {
    return impl_->host(std::move(errorHandler));
}

void HarborClient::observe(Observer observer) {
    impl_->observe(std::move(observer));
}

bool HarborClient::serviceRunning() {
    try {
        std::promise<bool> answer;
        auto result = answer.get_future();
        impl_->side.bus->post([bus = impl_->side.bus, &answer] {
            startCall(
                *bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                "NameHasOwner", 0,
                [](sd_bus_message* m) { return wire::appendAll(m, std::string(kServiceName)); },
                readReply<bool>(
                    std::function<void(bool)>([&answer](bool has) { answer.set_value(has); }),
                    [&answer](const CallError&) { answer.set_value(false); }),
                [&answer](const CallError&) { answer.set_value(false); });
        });
        return result.get();
    } catch (const std::future_error&) {
        return false;
    }
}

std::uint32_t HarborClient::serviceProcessId() {
    try {
        std::promise<std::uint32_t> answer;
        auto result = answer.get_future();
        impl_->side.bus->post([bus = impl_->side.bus, &answer] {
            startCall(
                *bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                "GetConnectionUnixProcessID", 0,
                [](sd_bus_message* m) { return wire::appendAll(m, std::string(kServiceName)); },
                readReply<std::uint32_t>(
                    std::function<void(std::uint32_t)>(
                        [&answer](std::uint32_t pid) { answer.set_value(pid); }),
                    [&answer](const CallError&) { answer.set_value(0); }),
                [&answer](const CallError&) { answer.set_value(0); });
        });
        return result.get();
    } catch (const std::future_error&) {
        return 0;
    }
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

std::vector<OrderedRelayAnswer> HarborClient::relayToUsbMuxInOrder(
    std::vector<OrderedRelayRequest> requests) {
    auto [answers] =
        impl_->await<std::vector<OrderedRelayAnswer>>([&](HarborBridgeHostProtocol& h, auto reply) {
            h.relayToUsbMuxInOrder(std::move(requests), reply);
        });
    return std::move(answers);
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

Bytes HarborClient::getStatus() {
    return std::get<0>(
        impl_->await<Bytes>([](HarborBridgeHostProtocol& h, auto reply) { h.getStatus(reply); }));
}

std::pair<bool, std::string> HarborClient::mountVolume() {
    auto [ok, message] = impl_->await<bool, std::string>(
        [](HarborBridgeHostProtocol& h, auto reply) { h.mountVolume(reply); });
    return {ok, std::move(message)};
}

void HarborClient::postVolumeNotice(const std::string& text) {
    impl_->host(nullptr)->postVolumeNotice(text);
}

std::pair<bool, std::string> HarborClient::unmountVolume(bool force) {
    auto [ok, message] = impl_->await<bool, std::string>(
        [force](HarborBridgeHostProtocol& h, auto reply) { h.unmountVolume(force, reply); });
    return {ok, std::move(message)};
}

std::uint32_t HarborClient::registerSharedBuffer(int fd) {
    return std::get<0>(impl_->awaitMethod<std::uint32_t>("RegisterSharedBuffer", UnixFd{fd}));
}

void HarborClient::releaseSharedBuffer(std::uint32_t bufferId) {
    impl_->awaitMethod<>("ReleaseSharedBuffer", bufferId);
}

HarborClient::SharedRelayReply HarborClient::relayToUsbMuxShared(
    std::int64_t selector, std::uint32_t bufferId, std::uint64_t paramOffset,
    std::uint64_t paramLength, std::uint64_t replyOffset, std::uint64_t replyCapacity) {
    auto [length, status, code] = impl_->awaitMethod<std::uint64_t, std::int64_t, std::int64_t>(
        "RelayToUsbMuxShared", selector, bufferId, paramOffset, paramLength, replyOffset,
        replyCapacity);
    return {length, status, code};
}

}  // namespace skiff::service::dbus
