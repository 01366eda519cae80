#pragma once
// The service front's view of the real USB-mux service.

#include "service/usbmux_link.hpp"
#include "usbmuxkit/service/usbmux_service.hpp"

namespace skiff::service {

class UsbMuxServiceLink : public UsbMuxLink {
public:
    explicit UsbMuxServiceLink(usbmuxkit::UsbMuxService& service) : service_(service) {}

    asio::awaitable<void> setDeviceEventHandler(DeviceEventHandler handler) override;
    asio::awaitable<void> start() override;
    asio::awaitable<SpeedTestMeasurement> runSpeedTestRound(std::uint16_t port,
                                                            std::uint64_t payloadBytes) override;

private:
    usbmuxkit::UsbMuxService& service_;
};

}  // namespace skiff::service
