#include "usbmuxkit/usbmux_flat.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "usbmuxkit/usb_tunnel_manager.hpp"

using usbmuxkit::TunnelSession;
using usbmuxkit::UsbTunnelManager;

// A share of one session: the socket stays open until the last share goes.
struct usbmux_tunnel_conn {
    std::shared_ptr<TunnelSession> session;
};

namespace {

std::string udidOf(const tunnel_id& id) {
    return std::string(id.udid, strnlen(id.udid, sizeof id.udid));
}

}  // namespace

extern "C" {

bool usbmux_mgr_start(void) {
    return UsbTunnelManager::shared().start();
}

void usbmux_mgr_shutdown(void) {
    UsbTunnelManager::shared().shutdown();
}

void usbmux_mgr_set_device_event_callback(usbmux_device_event_callback callback) {
    if (callback == nullptr) {
        UsbTunnelManager::shared().clearDeviceEventCallback();
        return;
    }
    UsbTunnelManager::shared().setDeviceEventCallback(
        [callback](const DeviceEvent& event) { callback(&event); });
}

int32_t usbmux_mgr_copy_current_tunnels(tunnel_id** out) {
    if (out == nullptr) {
        return -1;
    }
    *out = nullptr;
    const auto keys = UsbTunnelManager::shared().currentTunnels();
    if (keys.empty()) {
        return 0;
    }
    auto* records = static_cast<tunnel_id*>(std::calloc(keys.size(), sizeof(tunnel_id)));
    if (records == nullptr) {
        return -1;
    }
    for (size_t i = 0; i < keys.size(); ++i) {
        const size_t length = std::min(keys[i].udid.size(), sizeof records[i].udid - 1);
        std::memcpy(records[i].udid, keys[i].udid.data(), length);
        records[i].port = keys[i].port;
    }
    *out = records;
    return static_cast<int32_t>(keys.size());
}

void usbmux_mgr_free_tunnels(tunnel_id* tunnels, int32_t count) {
    if (tunnels != nullptr && count >= 1) {
        std::free(tunnels);
    }
}

bool usbmux_mgr_check_connected(tunnel_id id) {
    return UsbTunnelManager::shared().isTunnelConnected(udidOf(id), id.port);
}

void usbmux_mgr_invalidate_tunnel(tunnel_id id) {
    UsbTunnelManager::shared().invalidateSession(udidOf(id), id.port);
}

bool usbmux_tunnel_ensure(tunnel_id id) {
    return UsbTunnelManager::shared().ensureTunnel(udidOf(id), id.port);
}

usbmux_tunnel_conn* usbmux_tunnel_conn_acquire(tunnel_id id) {
    std::shared_ptr<TunnelSession> session =
        UsbTunnelManager::shared().sessionFor(udidOf(id), id.port);
    if (!session) {
        return nullptr;
    }
    return new (std::nothrow) usbmux_tunnel_conn{std::move(session)};
}

usbmux_tunnel_conn* usbmux_tunnel_conn_open(tunnel_id id) {
    return usbmux_tunnel_ensure(id) ? usbmux_tunnel_conn_acquire(id) : nullptr;
}

bool usbmux_tunnel_conn_send(usbmux_tunnel_conn* conn, const void* data, uint32_t length) {
    return usbmux_tunnel_conn_send_pair(conn, data, length, nullptr, 0);
}

bool usbmux_tunnel_conn_send_pair(usbmux_tunnel_conn* conn, const void* head, uint32_t headLength,
                                  const void* body, uint32_t bodyLength) {
    if (conn == nullptr || (head == nullptr && headLength != 0) ||
        (body == nullptr && bodyLength != 0)) {
        return false;
    }
    return conn->session->sendAll(head, headLength) && conn->session->sendAll(body, bodyLength);
}

bool usbmux_tunnel_conn_recv(usbmux_tunnel_conn* conn, void* buffer, uint32_t length) {
    if (conn == nullptr || (buffer == nullptr && length != 0)) {
        return false;
    }
    return conn->session->recvAll(buffer, length);
}

uint64_t usbmux_tunnel_conn_idle_ms(const usbmux_tunnel_conn* conn) {
    return conn == nullptr ? 0 : static_cast<uint64_t>(conn->session->idleFor().count());
}

void usbmux_tunnel_conn_invalidate(usbmux_tunnel_conn* conn) {
    if (conn != nullptr) {
        UsbTunnelManager::shared().invalidateSession(conn->session);
    }
}

void usbmux_tunnel_conn_release(usbmux_tunnel_conn* conn) {
    delete conn;
}

bool usbmux_tunnel_conn_run_ping(usbmux_tunnel_conn* conn, double* rttMs) {
    return conn != nullptr && UsbTunnelManager::runPing(*conn->session, rttMs);
}

bool usbmux_tunnel_conn_run_download_test(usbmux_tunnel_conn* conn, uint64_t bytes,
                                          double* seconds) {
    return conn != nullptr && UsbTunnelManager::runDownloadTest(*conn->session, bytes, seconds);
}

bool usbmux_tunnel_conn_run_upload_test(usbmux_tunnel_conn* conn, uint64_t bytes, double* seconds) {
    return conn != nullptr && UsbTunnelManager::runUploadTest(*conn->session, bytes, seconds);
}

void usbmux_mgr_free_buffer(void* pointer) {
    std::free(pointer);
}

}  // extern "C"
