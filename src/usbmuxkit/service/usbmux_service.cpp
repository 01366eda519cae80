#include "usbmuxkit/service/usbmux_service.hpp"

#include <cstring>
#include <mutex>
#include <optional>
#include <utility>
#include <variant>

#include "common/async_mutex.hpp"
#include "common/io_runtime.hpp"
#include "common/serial_queue.hpp"

namespace usbmuxkit {

// The bodies run on the service's strand, each in its turn.
struct UsbMuxService::State : std::enable_shared_from_this<State> {
    State(Strand s, std::chrono::milliseconds deadline)
        : strand(std::move(s)), roundDeadline(deadline) {}

    asio::awaitable<void> start();
    asio::awaitable<void> shutdown(bool final);
    asio::awaitable<void> setDeviceEventHandler(DeviceEventHandler handler);
    asio::awaitable<SpeedTestRound> runSpeedTestRound(std::uint16_t port,
                                                      std::uint64_t payloadBytes);
    asio::awaitable<void> deliverDeviceEvent(DeviceEvent event);
    void registerTrampoline();
    // Blocks for the whole round: ping, download and upload share one connection.
    std::variant<SpeedTestRound, ErrorCode> measureRound(std::uint16_t port,
                                                         std::uint64_t payloadBytes);
    void watchRound(usbmux_tunnel_conn* conn);
    void interruptRound();
    std::optional<std::chrono::system_clock::time_point> lastContact();

    const Strand strand;
    const std::chrono::milliseconds roundDeadline;
    // Touched only on the strand.
    bool started = false;
    bool ended = false;  // a final shutdown ran: no start after it
    DeviceEventHandler deviceEventHandler;
    // Each body waits for the one before it to finish, so a round that blocks on the
    // queue still holds the service as a whole, as its callers expect.
    skiff::runtime::AsyncMutex turns;
    // The connection of the round in progress and when the last round moved a byte:
    // read from any thread, under their own lock.
    std::mutex roundMutex;
    usbmux_tunnel_conn* measuring = nullptr;
    bool expired = false;  // the round in progress outlived its deadline
    std::optional<std::chrono::system_clock::time_point> lastMoved;
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

RoundOutcome measureOn(usbmux_tunnel_conn* conn, std::uint64_t payloadBytes) {
    using ErrorCode = UsbMuxService::ErrorCode;
    UsbMuxService::SpeedTestRound round;
    if (!usbmux_tunnel_conn_run_ping(conn, &round.pingMs)) {
        return ErrorCode::pingFailed;
    }
    double downloadSeconds = 0;
    if (!usbmux_tunnel_conn_run_download_test(conn, payloadBytes, &downloadSeconds)) {
        return ErrorCode::downloadFailed;
    }
    double uploadSeconds = 0;
    if (!usbmux_tunnel_conn_run_upload_test(conn, payloadBytes, &uploadSeconds)) {
        return ErrorCode::uploadFailed;
    }
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

UsbMuxService::UsbMuxService(asio::any_io_executor executor,
                             std::chrono::milliseconds roundDeadline)
    : Actor(std::move(executor)), state_(std::make_shared<State>(strand(), roundDeadline)) {}

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
    skiff::runtime::spawnTask(*target.strand, std::move(state), &State::deliverDeviceEvent,
                              std::move(copy));
}

asio::awaitable<void> UsbMuxService::State::deliverDeviceEvent(DeviceEvent event) {
    auto turn = co_await turns.lock();
    if (deviceEventHandler) {
        deviceEventHandler(event);
    }
}

void UsbMuxService::State::registerTrampoline() {
    {
        auto& target = eventTarget();
        std::lock_guard lock(target.mutex);
        target.state = weak_from_this();
        target.strand = strand;
    }
    usbmux_mgr_set_device_event_callback(&deviceEventTrampoline);
}

asio::awaitable<void> UsbMuxService::start() {
    return isolated(state_, &State::start);
}

asio::awaitable<void> UsbMuxService::State::start() {
    auto turn = co_await turns.lock();
    if (started || ended) {
        co_return;
    }
    // Registered before the manager starts as well as after: the library announces the
    // devices already present as soon as it subscribes, and a shutdown cleared the
    // manager's callback, so registering only afterwards could miss those announcements.
    if (deviceEventHandler) {
        registerTrampoline();
    }
    const bool ok = co_await queue.run([] { return usbmux_mgr_start(); });
    if (!ok) {
        throw Error(ErrorCode::startFailed);
    }
    started = true;
    if (deviceEventHandler) {
        registerTrampoline();
    }
}

asio::awaitable<void> UsbMuxService::shutdown(bool final) {
    state_->interruptRound();
    return isolated(state_, &State::shutdown, final);
}

asio::awaitable<void> UsbMuxService::State::shutdown(bool final) {
    auto turn = co_await turns.lock();
    ended = ended || final;
    usbmux_mgr_set_device_event_callback(nullptr);
    co_await queue.run([] { usbmux_mgr_shutdown(); });
    started = false;
}

asio::awaitable<void> UsbMuxService::setDeviceEventHandler(DeviceEventHandler handler) {
    return isolated(state_, &State::setDeviceEventHandler, std::move(handler));
}

asio::awaitable<void> UsbMuxService::State::setDeviceEventHandler(DeviceEventHandler handler) {
    auto turn = co_await turns.lock();
    deviceEventHandler = std::move(handler);
    if (deviceEventHandler) {
        registerTrampoline();
    } else {
        usbmux_mgr_set_device_event_callback(nullptr);
    }
}

asio::awaitable<UsbMuxService::SpeedTestRound> UsbMuxService::runSpeedTestRound(
    std::uint16_t port, std::uint64_t payloadBytes) {
    return isolated(state_, &State::runSpeedTestRound, port, payloadBytes);
}

asio::awaitable<UsbMuxService::SpeedTestRound> UsbMuxService::State::runSpeedTestRound(
    std::uint16_t port, std::uint64_t payloadBytes) {
    auto turn = co_await turns.lock();
    if (!started) {
        throw Error(ErrorCode::notStarted);
    }
    auto self = shared_from_this();
    auto measure = [self, port, payloadBytes] { return self->measureRound(port, payloadBytes); };
    {
        std::lock_guard lock(roundMutex);
        expired = false;
    }
    asio::steady_timer deadline(strand, roundDeadline);
    deadline.async_wait([self](const asio::error_code& error) {
        if (!error) {
            std::lock_guard lock(self->roundMutex);
            self->expired = true;
            usbmux_tunnel_conn_invalidate(self->measuring);
        }
    });
    RoundOutcome outcome = co_await queue.run(std::move(measure));
    deadline.cancel();
    if (auto* code = std::get_if<ErrorCode>(&outcome)) {
        throw Error(*code);
    }
    co_return std::get<SpeedTestRound>(std::move(outcome));
}

RoundOutcome UsbMuxService::State::measureRound(std::uint16_t port, std::uint64_t payloadBytes) {
    tunnel_id id{};  // an empty UDID: the first listed device
    id.port = port;
    usbmux_tunnel_conn* conn = usbmux_tunnel_conn_open(id);
    RoundOutcome outcome = ErrorCode::pingFailed;
    if (conn != nullptr) {
        watchRound(conn);
        outcome = measureOn(conn, payloadBytes);
        watchRound(nullptr);
        usbmux_tunnel_conn_release(conn);
    }
    bool timedOut = false;
    {
        std::lock_guard lock(roundMutex);
        timedOut = expired;
    }
    // Past the deadline the tunnel was dropped here: the failed step is the answer.
    if (auto* code = std::get_if<ErrorCode>(&outcome);
        code && *code == ErrorCode::pingFailed && !timedOut) {
        // A failed ping only tells whether a tunnel to the port exists at all.
        return resolveDeviceUDID(id).empty() ? ErrorCode::noDevices : ErrorCode::connectionFailed;
    }
    if (auto* round = std::get_if<SpeedTestRound>(&outcome)) {
        round->deviceUDID = resolveDeviceUDID(id);
    }
    return outcome;
}

// Called with the round's connection as it starts and with null as it ends; the time of its
// last byte is kept for lastContact().
void UsbMuxService::State::watchRound(usbmux_tunnel_conn* conn) {
    std::lock_guard lock(roundMutex);
    if (measuring != nullptr) {
        lastMoved = std::chrono::system_clock::now() -
                    std::chrono::milliseconds(usbmux_tunnel_conn_idle_ms(measuring));
    }
    measuring = conn;
    // A deadline that passed while the connection was being opened ends the round at once.
    if (conn != nullptr && expired) {
        usbmux_tunnel_conn_invalidate(conn);
    }
}

void UsbMuxService::State::interruptRound() {
    std::lock_guard lock(roundMutex);
    usbmux_tunnel_conn_invalidate(measuring);
}

std::optional<std::chrono::system_clock::time_point> UsbMuxService::State::lastContact() {
    std::lock_guard lock(roundMutex);
    if (measuring != nullptr) {
        return std::chrono::system_clock::now() -
               std::chrono::milliseconds(usbmux_tunnel_conn_idle_ms(measuring));
    }
    return lastMoved;
}

std::optional<std::chrono::system_clock::time_point> UsbMuxService::lastContact() const {
    return state_->lastContact();
}

}  // namespace usbmuxkit
