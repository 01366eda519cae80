#include "usbmuxkit/service/usbmux_service.hpp"

#include <cstring>
#include <optional>
#include <type_traits>
#include <utility>
#include <variant>

#include "common/async_mutex.hpp"
#include "common/io_runtime.hpp"
#include "common/serial_queue.hpp"

namespace usbmuxkit {

struct UsbMuxService::State {
    // Touched only on the service's strand.
    bool started = false;
    DeviceEventHandler deviceEventHandler;
    // Each method waits for the one before it to finish, so a round that blocks on the
    // queue still holds the service as a whole, as its callers expect.
    skiff::runtime::AsyncMutex turns;
    // Every native call that may block runs here, never on the pool's threads.
    skiff::runtime::SerialQueue queue{"Mox.Harbor.usbmux-service"};
};

// The native layer takes a plain function, so the service that registered last is
// remembered here for the trampoline.
struct UsbMuxService::EventTarget {
    std::mutex mutex;
    std::weak_ptr<State> state;
    std::optional<Strand> strand;
};

namespace {

const char* errorName(UsbMuxService::ErrorCode code) {
    switch (code) {
        case UsbMuxService::ErrorCode::notStarted:
            return "notStarted";
        case UsbMuxService::ErrorCode::startFailed:
            return "startFailed";
        case UsbMuxService::ErrorCode::noDevices:
            return "noDevices";
        case UsbMuxService::ErrorCode::connectionFailed:
            return "connectionFailed";
        case UsbMuxService::ErrorCode::pingFailed:
            return "pingFailed";
        case UsbMuxService::ErrorCode::downloadFailed:
            return "downloadFailed";
        case UsbMuxService::ErrorCode::uploadFailed:
            return "uploadFailed";
    }
    return "unknown";
}

std::string udidText(const char* field, std::size_t size) {
    return std::string(field, strnlen(field, size));
}

// A non-empty UDID names itself; an empty one is the UDID of the first open tunnel to
// the port, if any.
std::string resolveDeviceUDID(const tunnel_id& id) {
    if (id.udid[0] != '\0') {
        return udidText(id.udid, sizeof id.udid);
    }
    tunnel_id* tunnels = nullptr;
    const std::int32_t count = usbmux_mgr_copy_current_tunnels(&tunnels);
    std::string udid;
    for (std::int32_t i = 0; i < count; ++i) {
        if (tunnels[i].port == id.port && tunnels[i].udid[0] != '\0') {
            udid = udidText(tunnels[i].udid, sizeof tunnels[i].udid);
            break;
        }
    }
    usbmux_mgr_free_tunnels(tunnels, count);
    return udid;
}

using RoundOutcome = std::variant<UsbMuxService::SpeedTestRound, UsbMuxService::ErrorCode>;

// Blocks for the whole round: ping, download and upload share one tunnel.
RoundOutcome measureRound(std::uint16_t port, std::uint64_t payloadBytes) {
    using ErrorCode = UsbMuxService::ErrorCode;
    tunnel_id id{};  // an empty UDID: the first listed device
    id.port = port;
    UsbMuxService::SpeedTestRound round;
    if (!usbmux_mgr_run_ping(id, &round.pingMs)) {
        // A failed ping only tells whether a tunnel to the port exists at all.
        return resolveDeviceUDID(id).empty() ? ErrorCode::noDevices : ErrorCode::connectionFailed;
    }
    double downloadSeconds = 0;
    if (!usbmux_mgr_run_download_test(id, payloadBytes, &downloadSeconds)) {
        return ErrorCode::downloadFailed;
    }
    double uploadSeconds = 0;
    if (!usbmux_mgr_run_upload_test(id, payloadBytes, &uploadSeconds)) {
        return ErrorCode::uploadFailed;
    }
    round.deviceUDID = resolveDeviceUDID(id);
    round.download = {payloadBytes, downloadSeconds};
    round.upload = {payloadBytes, uploadSeconds};
    return round;
}

}  // namespace

UsbMuxService::Error::Error(ErrorCode code)
    : std::runtime_error(std::string("UsbMuxService.Error.") + errorName(code)), code_(code) {}

double UsbMuxService::ThroughputResult::mibPerSecond() const {
    if (bytes == 0 || !(seconds > 0)) {
        return 0;
    }
    return static_cast<double>(bytes) / (seconds * 1024 * 1024);
}

double UsbMuxService::ThroughputResult::mbitPerSecond() const {
    if (bytes == 0 || !(seconds > 0)) {
        return 0;
    }
    return static_cast<double>(bytes) * 8 / (seconds * 1000000);
}

UsbMuxService& UsbMuxService::shared() {
    static UsbMuxService service(skiff::runtime::IoRuntime::shared().executor());
    return service;
}

UsbMuxService::UsbMuxService(asio::any_io_executor executor)
    : Actor(std::move(executor)), state_(std::make_shared<State>()) {}

UsbMuxService::~UsbMuxService() {
    bool wasTarget = false;
    {
        auto& target = eventTarget();
        std::lock_guard lock(target.mutex);
        if (target.state.lock() == state_) {
            wasTarget = true;
            target.state.reset();
            target.strand.reset();
        }
    }
    if (wasTarget) {
        usbmux_mgr_set_device_event_callback(nullptr);
    }
}

UsbMuxService::EventTarget& UsbMuxService::eventTarget() {
    static EventTarget target;
    return target;
}

void UsbMuxService::deviceEventTrampoline(const ::DeviceEvent* event) {
    if (event == nullptr) {
        return;
    }
    DeviceEvent copy{event->eventType, udidText(event->udid, sizeof event->udid)};
    auto& target = eventTarget();
    std::lock_guard lock(target.mutex);
    auto state = target.state.lock();
    if (!state || !target.strand) {
        return;
    }
    skiff::runtime::spawnTask(*target.strand,
                              deliverDeviceEvent(std::move(state), std::move(copy)));
}

asio::awaitable<void> UsbMuxService::deliverDeviceEvent(std::shared_ptr<State> state,
                                                        DeviceEvent event) {
    auto turn = co_await state->turns.lock();
    if (state->deviceEventHandler) {
        state->deviceEventHandler(event);
    }
}

template <class T>
asio::awaitable<T> UsbMuxService::inTurn(std::shared_ptr<State> state, asio::awaitable<T> body) {
    auto turn = co_await state->turns.lock();
    if constexpr (std::is_void_v<T>) {
        co_await std::move(body);
    } else {
        co_return co_await std::move(body);
    }
}

void UsbMuxService::registerTrampoline() {
    {
        auto& target = eventTarget();
        std::lock_guard lock(target.mutex);
        target.state = state_;
        target.strand = strand();
    }
    usbmux_mgr_set_device_event_callback(&deviceEventTrampoline);
}

asio::awaitable<void> UsbMuxService::start() {
    return isolated(inTurn(state_, doStart()));
}

asio::awaitable<void> UsbMuxService::doStart() {
    if (state_->started) {
        co_return;
    }
    // Registered before the manager starts as well as after: the library announces the
    // devices already present as soon as it subscribes, and a shutdown cleared the
    // manager's callback, so registering only afterwards could miss those announcements.
    if (state_->deviceEventHandler) {
        registerTrampoline();
    }
    const bool ok = co_await state_->queue.run([] { return usbmux_mgr_start(); });
    if (!ok) {
        throw Error(ErrorCode::startFailed);
    }
    state_->started = true;
    if (state_->deviceEventHandler) {
        registerTrampoline();
    }
}

asio::awaitable<void> UsbMuxService::shutdown() {
    return isolated(inTurn(state_, doShutdown()));
}

asio::awaitable<void> UsbMuxService::doShutdown() {
    usbmux_mgr_set_device_event_callback(nullptr);
    co_await state_->queue.run([] { usbmux_mgr_shutdown(); });
    state_->started = false;
}

asio::awaitable<void> UsbMuxService::setDeviceEventHandler(DeviceEventHandler handler) {
    return isolated(inTurn(state_, doSetDeviceEventHandler(std::move(handler))));
}

asio::awaitable<void> UsbMuxService::doSetDeviceEventHandler(DeviceEventHandler handler) {
    state_->deviceEventHandler = std::move(handler);
    if (state_->deviceEventHandler) {
        registerTrampoline();
    } else {
        usbmux_mgr_set_device_event_callback(nullptr);
    }
    co_return;
}

asio::awaitable<UsbMuxService::SpeedTestRound> UsbMuxService::runSpeedTestRound(
    std::uint16_t port, std::uint64_t payloadBytes) {
    return isolated(inTurn(state_, doRunSpeedTestRound(port, payloadBytes)));
}

asio::awaitable<UsbMuxService::SpeedTestRound> UsbMuxService::doRunSpeedTestRound(
    std::uint16_t port, std::uint64_t payloadBytes) {
    if (!state_->started) {
        throw Error(ErrorCode::notStarted);
    }
    RoundOutcome outcome = co_await state_->queue.run(
        [port, payloadBytes] { return measureRound(port, payloadBytes); });
    if (auto* code = std::get_if<ErrorCode>(&outcome)) {
        throw Error(*code);
    }
    co_return std::get<SpeedTestRound>(std::move(outcome));
}

}  // namespace usbmuxkit
