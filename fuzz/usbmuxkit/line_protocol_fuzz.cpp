// Feeds arbitrary phone replies to the line reader and the measuring operations.
// The first byte picks the operation and a payload size; the rest is what the phone says.

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>

#include "usbmuxkit/tunnel_session.hpp"
#include "usbmuxkit/usb_tunnel_manager.hpp"
#include "usbmuxkit/usbmux_backend.hpp"

namespace {

class ScriptedPhone final : public usbmuxkit::UsbmuxBackend {
public:
    const uint8_t* data = nullptr;
    size_t size = 0;

    int getDeviceList(usbmuxd_device_info_t** list) override {
        *list = nullptr;
        return 0;
    }
    int deviceListFree(usbmuxd_device_info_t**) override { return 0; }
    int eventsSubscribe(usbmuxd_subscription_context_t*, usbmuxd_event_cb_t, void*) override {
        return -1;
    }
    int eventsUnsubscribe(usbmuxd_subscription_context_t) override { return 0; }
    int connect(uint32_t, uint16_t) override { return -1; }
    int disconnect(int) override { return 0; }
    int send(int, const char*, uint32_t length, uint32_t* sent) override {
        *sent = length;
        return 0;
    }
    // Hands out what is left, a few bytes at a time; the end of input is the peer's close.
    int recv(int, char* out, uint32_t length, uint32_t* got) override {
        const size_t n = std::min<size_t>({length, size, 7});
        std::memcpy(out, data, n);
        data += n;
        size -= n;
        *got = static_cast<uint32_t>(n);
        return n > 0 ? 0 : -ECONNRESET;
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static ScriptedPhone phone;
    static std::ostringstream sink;
    static const bool ready = [] {
        usbmuxkit::setUsbmuxBackend(&phone);
        std::cout.rdbuf(sink.rdbuf());
        std::cerr.rdbuf(sink.rdbuf());
        return true;
    }();
    (void)ready;
    if (size == 0) {
        return 0;
    }
    phone.data = data + 1;
    phone.size = size - 1;
    sink.str({});
    // Any non-negative number stands for an open socket; the phone never sees it.
    usbmuxkit::TunnelSession session(3, "FUZZ", 1, 33325);
    const uint64_t bytes = data[0] >> 2;
    double value = 0;
    std::string line;
    switch (data[0] & 3) {
        case 0:
            while (session.readLine(line)) {
            }
            break;
        case 1:
            usbmuxkit::UsbTunnelManager::runPing(session, &value);
            break;
        case 2:
            usbmuxkit::UsbTunnelManager::runDownloadTest(session, bytes, &value);
            break;
        default:
            usbmuxkit::UsbTunnelManager::runUploadTest(session, bytes, &value);
            break;
    }
    return 0;
}
