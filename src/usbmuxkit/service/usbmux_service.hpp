#pragma once
// The facade the rest of the service uses for the USB layer: starting and stopping the
// tunnel manager, device attach/detach events, and one speed-test round (ping, download,
// upload) against the companion app. An actor: its methods run one at a time on its strand.

#include <asio.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>

#include "common/actor.hpp"
#include "usbmuxkit/usbmux_flat.h"

namespace usbmuxkit {

class UsbMuxService : public skiff::runtime::Actor {
public:
    struct DeviceEvent {
        std::int32_t eventType;  // 1 added, 2 removed, 3 paired
        std::string udid;        // empty when the native record's UDID is empty
    };

    struct ThroughputResult {
        std::uint64_t bytes = 0;
        double seconds = 0;
        double mibPerSecond() const;
        double mbitPerSecond() const;
    };

    struct SpeedTestRound {
        std::string deviceUDID;
        double pingMs = 0;
        ThroughputResult download;  // host to iPhone
        ThroughputResult upload;    // iPhone to host
    };

    enum class ErrorCode {
        notStarted,
        startFailed,
        noDevices,
        connectionFailed,
        pingFailed,
        downloadFailed,
        uploadFailed
    };

    class Error : public std::runtime_error {
    public:
        explicit Error(ErrorCode code);
        ErrorCode code() const { return code_; }

    private:
        ErrorCode code_;
    };

    using DeviceEventHandler = std::function<void(const DeviceEvent&)>;

    // A round still running after this fails: its tunnel is invalidated, so that a phone
    // that stops answering mid-round cannot hold the service for ever.
    static constexpr std::chrono::milliseconds kRoundDeadline{120'000};

    // skiffd makes one in main, tests make their own on a runtime of theirs. The native
    // layer behind it is always the process-wide tunnel manager.
    explicit UsbMuxService(asio::any_io_executor executor,
                           std::chrono::milliseconds roundDeadline = kRoundDeadline);
    ~UsbMuxService();

    // Throws Error(startFailed) when the native manager does not start.
    asio::awaitable<void> start();
    // A round in progress fails at once rather than holding the shutdown up. With
    // `final`, a start that has not run yet (a task still queued) does nothing afterwards:
    // the process is ending, and a USB layer started then would outlive the graph.
    asio::awaitable<void> shutdown(bool final = false);
    asio::awaitable<void> setDeviceEventHandler(DeviceEventHandler handler);

    // Blocks a serial queue (never an io_context thread) for the whole round and holds
    // the actor that long. Throws Error.
    asio::awaitable<SpeedTestRound> runSpeedTestRound(std::uint16_t port,
                                                      std::uint64_t payloadBytes);

    // When a speed test last moved a byte to or from the app (now, give or take, while one
    // moves bytes); nothing before the first. A speed test is contact with the app, as any
    // relay answer is. Any thread; it never waits for a round.
    std::optional<std::chrono::system_clock::time_point> lastContact() const;

private:
    struct State;
    struct EventTarget;

    static EventTarget& eventTarget();
    // Runs on the native event thread.
    static void deviceEventTrampoline(const ::DeviceEvent* event);

    // The service's state and the bodies of its methods, which hold it while they run;
    // so do the tasks that deliver device events, which may outlive the service.
    std::shared_ptr<State> state_;
};

}  // namespace usbmuxkit
