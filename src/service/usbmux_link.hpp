#pragma once
// The USB layer as the service front uses it: start it once, receive its device events,
// run a speed-test round. skiffd plugs in the real USB-mux service; unit tests a fake.

#include <asio.hpp>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>

namespace skiff::service {

struct SpeedTestMeasurement {
    std::string deviceUDID;  // empty when unknown
    double pingMs = 0;
    double downloadMiBPerSecond = 0;
    double downloadMbitPerSecond = 0;
    double uploadMiBPerSecond = 0;
    double uploadMbitPerSecond = 0;
};

class SpeedTestError : public std::runtime_error {
public:
    enum class Kind { noDevices, connectionFailed, other };
    SpeedTestError(Kind kind, const std::string& description)
        : std::runtime_error(description), kind_(kind) {}
    Kind kind() const { return kind_; }

private:
    Kind kind_;
};

class UsbMuxLink {
public:
    using DeviceEventHandler = std::function<void(std::int32_t eventType, const std::string& udid)>;

    virtual ~UsbMuxLink() = default;
    virtual asio::awaitable<void> setDeviceEventHandler(DeviceEventHandler handler) = 0;
    // Throws (any std::exception) when the USB layer does not start.
    virtual asio::awaitable<void> start() = 0;
    // Throws SpeedTestError.
    virtual asio::awaitable<SpeedTestMeasurement> runSpeedTestRound(std::uint16_t port,
                                                                    std::uint64_t payloadBytes) = 0;
};

}  // namespace skiff::service
