/* Plain-data interface of the native USB layer, callable from C and C++ alike.
 * Every function works on the process-wide tunnel manager. Nothing here throws:
 * failure is false, -1 or nothing, and the transfers log their own details.
 *
 * Ownership: the array from usbmux_mgr_copy_current_tunnels belongs to the caller,
 * who gives it back with usbmux_mgr_free_tunnels. A connection handle keeps its
 * socket open until it is released, even when another thread invalidates the tunnel or
 * the device goes away meanwhile: a transfer on it is woken and fails, and the socket is
 * closed only after the last handle has gone. Per tunnel, keep at most one sending and
 * one receiving thread. */
#ifndef SKIFF_USBMUXKIT_USBMUX_FLAT_H
#define SKIFF_USBMUXKIT_USBMUX_FLAT_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Room for a UDID of at most 47 characters and its terminating NUL. */
#define USBMUX_UDID_SIZE 48

/* One tunnel: an all-zero udid means the first device that usbmuxd lists. */
typedef struct tunnel_id {
    char udid[USBMUX_UDID_SIZE];
    uint16_t port;
} tunnel_id;

/* A device event: eventType is the usbmuxd code (1 added, 2 removed, 3 paired);
 * udid is NUL-terminated and zero-filled. */
typedef struct DeviceEvent {
    int32_t eventType;
    char udid[USBMUX_UDID_SIZE];
} DeviceEvent;

/* Runs on the library's event thread; it must return quickly and must not call
 * back into this interface. */
typedef void (*usbmux_device_event_callback)(const DeviceEvent* event);

bool usbmux_mgr_start(void);
void usbmux_mgr_shutdown(void);
void usbmux_mgr_set_device_event_callback(usbmux_device_event_callback callback);

int32_t usbmux_mgr_copy_current_tunnels(tunnel_id** out);
void usbmux_mgr_free_tunnels(tunnel_id* tunnels, int32_t count);
bool usbmux_mgr_check_connected(tunnel_id id);
void usbmux_mgr_invalidate_tunnel(tunnel_id id);

/* Connects the tunnel when it has no connection. */
bool usbmux_tunnel_ensure(tunnel_id id);

/* One connection of a tunnel, the one way to move bytes through it. A handle never follows
 * the tunnel to a new connection: what it still sends or reads after the connection was
 * dropped fails, even once the tunnel has been connected anew, so a request given up on is
 * never answered into its successor. The handle keeps the connection alive until it is
 * released; any thread may use it, with at most one sending and one receiving thread at a
 * time. Typical use: usbmux_tunnel_conn_open, transfers, usbmux_tunnel_conn_invalidate
 * after a failure, usbmux_tunnel_conn_release. */
typedef struct usbmux_tunnel_conn usbmux_tunnel_conn;

/* The connection the tunnel has now, or null when it has none; it does not connect. */
usbmux_tunnel_conn* usbmux_tunnel_conn_acquire(tunnel_id id);
/* The same, connecting first when the tunnel has no connection; null when none can be made. */
usbmux_tunnel_conn* usbmux_tunnel_conn_open(tunnel_id id);
bool usbmux_tunnel_conn_send(usbmux_tunnel_conn* conn, const void* data, uint32_t length);
/* head and then body, to this connection only, with no other send between them. */
bool usbmux_tunnel_conn_send_pair(usbmux_tunnel_conn* conn, const void* head, uint32_t headLength,
                                  const void* body, uint32_t bodyLength);
bool usbmux_tunnel_conn_recv(usbmux_tunnel_conn* conn, void* buffer, uint32_t length);
/* Milliseconds since the connection last moved a byte either way (or was opened). */
uint64_t usbmux_tunnel_conn_idle_ms(const usbmux_tunnel_conn* conn);
/* Drops this connection and wakes its transfers; the tunnel forgets it unless another
 * connection has replaced it already, which stays. */
void usbmux_tunnel_conn_invalidate(usbmux_tunnel_conn* conn);
/* Null is harmless. */
void usbmux_tunnel_conn_release(usbmux_tunnel_conn* conn);

/* The measurement line protocol over one connection; results go to the out pointers
 * (which may be null) only on success. */
bool usbmux_tunnel_conn_run_ping(usbmux_tunnel_conn* conn, double* rttMs);
bool usbmux_tunnel_conn_run_download_test(usbmux_tunnel_conn* conn, uint64_t bytes,
                                          double* seconds);
bool usbmux_tunnel_conn_run_upload_test(usbmux_tunnel_conn* conn, uint64_t bytes, double* seconds);

void usbmux_mgr_free_buffer(void* pointer);

#ifdef __cplusplus
}
#endif

#endif
