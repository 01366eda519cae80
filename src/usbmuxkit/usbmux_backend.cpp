#include "usbmuxkit/usbmux_backend.hpp"

#include <atomic>

namespace usbmuxkit {
namespace {

class LibraryBackend final : public UsbmuxBackend {
public:
    int getDeviceList(usbmuxd_device_info_t** list) override {
        return usbmuxd_get_device_list(list);
    }
    int deviceListFree(usbmuxd_device_info_t** list) override {
        return usbmuxd_device_list_free(list);
    }
    int eventsSubscribe(usbmuxd_subscription_context_t* context, usbmuxd_event_cb_t callback,
                        void* userData) override {
        return usbmuxd_events_subscribe(context, callback, userData);
    }
    int eventsUnsubscribe(usbmuxd_subscription_context_t context) override {
        return usbmuxd_events_unsubscribe(context);
    }
    int connect(uint32_t handle, uint16_t port) override { return usbmuxd_connect(handle, port); }
    int disconnect(int fd) override { return usbmuxd_disconnect(fd); }
    int send(int fd, const char* data, uint32_t length, uint32_t* sent) override {
        return usbmuxd_send(fd, data, length, sent);
    }
    int recv(int fd, char* data, uint32_t length, uint32_t* received) override {
        return usbmuxd_recv(fd, data, length, received);
    }
};

LibraryBackend& libraryBackend() {
    static LibraryBackend backend;
    return backend;
}

std::atomic<UsbmuxBackend*> installed{nullptr};

}  // namespace

UsbmuxBackend& usbmuxBackend() {
    UsbmuxBackend* backend = installed.load(std::memory_order_acquire);
    return backend != nullptr ? *backend : libraryBackend();
}

void setUsbmuxBackend(UsbmuxBackend* backend) {
    installed.store(backend, std::memory_order_release);
}

}  // namespace usbmuxkit
