#pragma once
// The one door to libusbmuxd. Every call the native layer makes into the library goes
// through the installed backend, so unit tests can script device lists and events and
// see (and bend) every send and receive request.

#include <usbmuxd.h>

#include <cstdint>

namespace usbmuxkit {

class UsbmuxBackend {
public:
    virtual ~UsbmuxBackend() = default;

    virtual int getDeviceList(usbmuxd_device_info_t** list) = 0;
    virtual int deviceListFree(usbmuxd_device_info_t** list) = 0;
    virtual int eventsSubscribe(usbmuxd_subscription_context_t* context,
                                usbmuxd_event_cb_t callback, void* userData) = 0;
    virtual int eventsUnsubscribe(usbmuxd_subscription_context_t context) = 0;
    virtual int connect(uint32_t handle, uint16_t port) = 0;
    virtual int disconnect(int fd) = 0;
    virtual int send(int fd, const char* data, uint32_t length, uint32_t* sent) = 0;
    virtual int recv(int fd, char* data, uint32_t length, uint32_t* received) = 0;

    // Which daemon is listening now: 0 when none, otherwise a number that changes
    // when the daemon's socket is replaced. libusbmuxd follows a late or
    // restarted daemon only at its default path, so the manager watches this itself.
    // Called from the manager's watcher thread. The default suits scripted backends:
    // a daemon that is always there and never restarts.
    virtual uint64_t daemonIdentity() { return 1; }
};

// The backend in use: libusbmuxd itself unless another one was installed.
UsbmuxBackend& usbmuxBackend();

// Installs `backend` (not owned; it must outlive its use) for every later call.
// Null puts libusbmuxd back. Meant for tests, between runs of the manager.
void setUsbmuxBackend(UsbmuxBackend* backend);

}  // namespace usbmuxkit
