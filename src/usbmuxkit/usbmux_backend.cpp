#include "usbmuxkit/usbmux_backend.hpp"

#include <sys/stat.h>

#include <atomic>
#include <cstdlib>
#include <string_view>

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
    uint64_t daemonIdentity() override {
        // The same address rule as the library: "UNIX:/path", "host:port", or unset.
        constexpr std::string_view kDefaultPath = "/var/run/usbmuxd";
        const char* address = std::getenv("USBMUXD_SOCKET_ADDRESS");
        std::string_view path = kDefaultPath;
        if (address != nullptr && *address != '\0') {
            const std::string_view value(address);
            if (!value.starts_with("UNIX:")) {
                return 1;  // a TCP daemon has no file to watch: taken as always there
            }
            path = value.substr(5);
        }
        // The library waits for a late or restarted daemon at its default path by itself;
        // following it as well would report each restart twice.
        if (path == kDefaultPath) {
            return 1;
        }
        struct stat info {};
        if (::stat(std::string(path).c_str(), &info) != 0 || !S_ISSOCK(info.st_mode)) {
            return 0;
        }
        // A new socket may reuse the old one's inode number; its creation time tells them apart.
        const auto created = static_cast<uint64_t>(info.st_mtim.tv_sec) * 1'000'000'000u +
                             static_cast<uint64_t>(info.st_mtim.tv_nsec);
        return (created ^ (static_cast<uint64_t>(info.st_ino) << 32)) | (uint64_t{1} << 63);
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
