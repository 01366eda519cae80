#include "service/usbmux_service_link.hpp"

#include <utility>

namespace skiff::service {

using usbmuxkit::UsbMuxService;

asio::awaitable<void> UsbMuxServiceLink::setDeviceEventHandler(DeviceEventHandler handler) {
    UsbMuxService::DeviceEventHandler forward;
    if (handler) {
        forward = [handler = std::move(handler)](const UsbMuxService::DeviceEvent& event) {
            handler(event.eventType, event.udid);
        };
    }
    co_await service_.setDeviceEventHandler(std::move(forward));
}

asio::awaitable<void> UsbMuxServiceLink::start() {
    co_await service_.start();
}

asio::awaitable<SpeedTestMeasurement> UsbMuxServiceLink::runSpeedTestRound(
    std::uint16_t port, std::uint64_t payloadBytes) {
    UsbMuxService::SpeedTestRound round;
    try {
        round = co_await service_.runSpeedTestRound(port, payloadBytes);
    } catch (const UsbMuxService::Error& e) {
        const auto kind = e.code() == UsbMuxService::ErrorCode::noDevices
                              ? SpeedTestError::Kind::noDevices
                          : e.code() == UsbMuxService::ErrorCode::connectionFailed
                              ? SpeedTestError::Kind::connectionFailed
                              : SpeedTestError::Kind::other;
        throw SpeedTestError(kind, e.what());
    }
    co_return SpeedTestMeasurement{round.deviceUDID,
                                   round.pingMs,
                                   round.download.mibPerSecond(),
                                   round.download.mbitPerSecond(),
                                   round.upload.mibPerSecond(),
                                   round.upload.mbitPerSecond()};
}

}  // namespace skiff::service
