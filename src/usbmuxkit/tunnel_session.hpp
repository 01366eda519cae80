#pragma once
// One open byte stream to a TCP port on an attached iPhone, with exact-length
// transfers. The session owns its socket and disconnects it when closed or destroyed.
//
// No lock: at most one sender and one receiver at a time (the socket is full duplex).
// The tunnel manager shares sessions with running transfers: to drop one it calls
// interrupt(), which wakes a blocked transfer and fails every later one but keeps the
// descriptor, and the socket is disconnected only when the last owner lets go, so a
// transfer never touches a descriptor number that was handed out again.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

namespace usbmuxkit {

class TunnelSession {
public:
    // Each request to usbmuxd moves at most this many bytes.
    static constexpr uint32_t kChunkSize = 262144;

    TunnelSession(int32_t fd, std::string udid, int32_t deviceHandle, uint16_t port);
    ~TunnelSession();
    TunnelSession(const TunnelSession&) = delete;
    TunnelSession& operator=(const TunnelSession&) = delete;

    // Disconnects the socket; a closed session stays closed. Harmless twice.
    void close();
    // Shuts the socket down both ways so a blocked transfer returns with a failure, and
    // fails every later transfer (bytes still buffered on the socket are not handed out);
    // the descriptor itself stays open until close() or destruction.
    void interrupt();

    bool sendAll(const void* data, uint32_t length);
    bool recvAll(void* buffer, uint32_t length);
    // Reads up to LF one byte at a time (never past it) and drops trailing CRs.
    bool readLine(std::string& line);

    // How long ago a byte last moved either way (or the session was made); any thread.
    std::chrono::milliseconds idleFor() const;

    int32_t fd() const { return fd_.load(std::memory_order_acquire); }
    bool interrupted() const { return interrupted_.load(std::memory_order_acquire); }
    const std::string& udid() const { return udid_; }
    int32_t deviceHandle() const { return deviceHandle_; }
    uint16_t port() const { return port_; }

private:
    void moved();

    std::atomic<int32_t> fd_;
    // steady_clock's count at the last byte moved.
    std::atomic<int64_t> lastMoved_;
    std::atomic<bool> interrupted_{false};
    std::string udid_;
    int32_t deviceHandle_;
    uint16_t port_;
};

}  // namespace usbmuxkit
