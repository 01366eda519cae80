#pragma once
// A scriptable stand-in for libusbmuxd. Connections are real socket pairs, so a
// test can play the phone on the peer end and a shutdown really wakes a reader;
// onSend / onRecv replace the socket path to script exact results.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "usbmuxkit/tunnel_session.hpp"
#include "usbmuxkit/usbmux_backend.hpp"

namespace usbmuxkit::testing {

class FakeUsbmux : public UsbmuxBackend {
public:
    using SendHook = std::function<int(int fd, const char*, uint32_t, uint32_t*)>;
    using RecvHook = std::function<int(int fd, char*, uint32_t, uint32_t*)>;

    struct Device {
        uint32_t handle;
        std::string udid;
    };

    FakeUsbmux() { setUsbmuxBackend(this); }
    ~FakeUsbmux() override {
        setUsbmuxBackend(nullptr);
        for (auto& [fd, peer] : peers_) {
            ::close(peer);
        }
    }

    // ---- script ----
    void setDevices(std::vector<Device> devices) {
        std::lock_guard lock(mutex_);
        devices_ = std::move(devices);
    }
    int listResult = 0;                   // a negative value makes the listing fail
    std::atomic<int> subscribeResult{0};  // the watcher thread reads it too
    bool announceOnSubscribe = false;
    // The daemon listening now: 0 for none; another value stands for a restarted one.
    std::atomic<uint64_t> daemon{1};
    SendHook onSend;
    RecvHook onRecv;

    // Delivers an event the way the library's event thread does.
    void fire(int code, uint32_t handle, const std::string& udid) {
        std::lock_guard lock(eventMutex_);
        if (callback_ == nullptr) {
            return;
        }
        usbmuxd_event_t event{};
        event.event = code;
        event.device.handle = handle;
        copyUdid(event.device.udid, udid);
        callback_(&event, userData_);
    }
    void fireFromThread(int code, uint32_t handle, const std::string& udid) {
        std::thread([&] { fire(code, handle, udid); }).join();
    }
    // The phone's end of the connection that `fd` names.
    int peerOf(int fd) {
        std::lock_guard lock(mutex_);
        return peers_.at(fd);
    }
    int passThroughRecv(int fd, char* data, uint32_t length, uint32_t* got) {
        const ssize_t n = ::recv(fd, data, length, 0);
        *got = n > 0 ? static_cast<uint32_t>(n) : 0;
        return n > 0 ? 0 : (n == 0 ? -ECONNRESET : -errno);
    }

    // ---- observations ----
    std::atomic<int> listCalls{0}, subscribeCalls{0}, unsubscribeCalls{0};
    std::atomic<int> recvsInFlight{0}, disconnectsDuringRecv{0};
    std::vector<std::pair<uint32_t, uint16_t>> connects;  // (handle, port)
    std::vector<int> disconnects;
    std::vector<uint32_t> sendRequests, recvRequests;
    std::string sent;

    // ---- the library ----
    int getDeviceList(usbmuxd_device_info_t** list) override {
        std::lock_guard lock(mutex_);
        ++listCalls;
        *list = nullptr;
        if (listResult < 0) {
            return listResult;
        }
        *list = new usbmuxd_device_info_t[devices_.size() + 1]{};
        for (size_t i = 0; i < devices_.size(); ++i) {
            (*list)[i].handle = devices_[i].handle;
            copyUdid((*list)[i].udid, devices_[i].udid);
        }
        return static_cast<int>(devices_.size());
    }
    int deviceListFree(usbmuxd_device_info_t** list) override {
        delete[] * list;
        *list = nullptr;
        return 0;
    }
    int eventsSubscribe(usbmuxd_subscription_context_t* context, usbmuxd_event_cb_t callback,
                        void* userData) override {
        ++subscribeCalls;
        if (const int result = subscribeResult.load(); result != 0) {
            return result;
        }
        {
            std::lock_guard lock(eventMutex_);
            callback_ = callback;
            userData_ = userData;
            *context = reinterpret_cast<usbmuxd_subscription_context_t>(this);
        }
        // The library's event thread may announce present devices before subscribe returns.
        if (announceOnSubscribe) {
            std::vector<Device> present;
            {
                std::lock_guard lock(mutex_);
                present = devices_;
            }
            for (const auto& device : present) {
                fire(1, device.handle, device.udid);
            }
        }
        return 0;
    }
    // Like the library, waits for an event being delivered.
    int eventsUnsubscribe(usbmuxd_subscription_context_t) override {
        ++unsubscribeCalls;
        std::lock_guard lock(eventMutex_);
        callback_ = nullptr;
        return 0;
    }
    uint64_t daemonIdentity() override { return daemon.load(); }
    int connect(uint32_t handle, uint16_t port) override {
        int pair[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) {
            return -errno;
        }
        std::lock_guard lock(mutex_);
        connects.emplace_back(handle, port);
        if (auto old = peers_.find(pair[0]); old != peers_.end()) {
            ::close(old->second);  // the descriptor number was handed out again
        }
        peers_[pair[0]] = pair[1];
        return pair[0];
    }
    int disconnect(int fd) override {
        if (recvsInFlight.load() > 0) {
            ++disconnectsDuringRecv;
        }
        std::lock_guard lock(mutex_);
        disconnects.push_back(fd);
        return ::close(fd);
    }
    int send(int fd, const char* data, uint32_t length, uint32_t* sentBytes) override {
        {
            std::lock_guard lock(mutex_);
            sendRequests.push_back(length);
        }
        int rc = 0;
        if (onSend) {
            rc = onSend(fd, data, length, sentBytes);
        } else {
            const ssize_t n = ::send(fd, data, length, MSG_NOSIGNAL);
            *sentBytes = n > 0 ? static_cast<uint32_t>(n) : 0;
            rc = n >= 0 ? 0 : -errno;
        }
        std::lock_guard lock(mutex_);
        sent.append(data, rc == 0 ? *sentBytes : 0);
        return rc;
    }
    int recv(int fd, char* data, uint32_t length, uint32_t* got) override {
        {
            std::lock_guard lock(mutex_);
            recvRequests.push_back(length);
        }
        ++recvsInFlight;
        const int st =
            onRecv ? onRecv(fd, data, length, got) : passThroughRecv(fd, data, length, got);
        --recvsInFlight;
        return st;
    }

private:
    // The library's field has room for 44 characters, without a NUL when full.
    static void copyUdid(char (&field)[44], const std::string& udid) {
        std::memcpy(field, udid.data(), std::min(udid.size(), sizeof field));
    }

    std::mutex mutex_;
    std::mutex eventMutex_;
    std::vector<Device> devices_;
    std::map<int, int> peers_;
    usbmuxd_event_cb_t callback_ = nullptr;
    void* userData_ = nullptr;
};

// A session on one fake connection, for tests that play the phone at its other end.
class FakeSessionTest : public ::testing::Test {
protected:
    void phoneSends(const std::string& bytes) {
        ASSERT_EQ(::send(fake.peerOf(fd), bytes.data(), bytes.size(), 0),
                  static_cast<ssize_t>(bytes.size()));
    }

    FakeUsbmux fake;
    int fd = fake.connect(1, 33325);
    TunnelSession session{fd, "UDID-1", 1, 33325};
};

}  // namespace usbmuxkit::testing
