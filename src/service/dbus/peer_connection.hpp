#pragma once
// A bus peer as the core sees it: one ClientConnection per unique name, with a proxy to
// the object that peer exports. It also owns what the adapter keeps for that peer alone:
// the calls it is waiting on, the shared buffers it registered, and its bounded queue of
// notifications. When the peer leaves the bus, gone() releases all of it.
//
// Threads: the core may call any method from any thread; one mutex guards the fields.
// gone() and the buffer methods run on the bus strand.

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "common/bridge_protocols.hpp"
#include "common/shared_memory.hpp"
#include "service/dbus/bus_calls.hpp"
#include "service/dbus/bus_connection.hpp"
#include "service/dbus/notice_queue.hpp"

namespace skiff::service::dbus {

// A peer may keep this many shared buffers at once.
inline constexpr std::size_t kMaxSharedBuffersPerPeer = 16;

class PeerConnection final : public ClientConnection,
                             public std::enable_shared_from_this<PeerConnection> {
public:
    // `clientDeadline` bounds every call made to this peer.
    PeerConnection(std::shared_ptr<BusConnection> bus, std::string peer,
                   std::chrono::milliseconds clientDeadline);

    const std::string& peer() const { return peer_; }
    std::string name() const override { return peer_; }

    void setExportedObject(std::shared_ptr<HarborBridgeHostProtocol> host) override;
    HarborBridgeHostProtocol* exportedObject() const override;
    std::shared_ptr<HarborBridgeHostProtocol> exportedObjectShared() const;
    void setInvalidationHandler(std::function<void()> handler) override;
    std::shared_ptr<HarborBridgeClientProtocol> remoteObjectProxy(
        std::function<void(const ClientCallFailure& failure)> errorHandler) override;

    // A call of this peer that will be answered later; released if the peer leaves first.
    std::shared_ptr<PendingCall> track(sd_bus_message* call);

    // Shared buffers of this peer, by an id unique in the service. register fails (0) past
    // the per-peer limit.
    std::uint32_t registerBuffer(std::shared_ptr<SharedMemory> buffer);
    bool releaseBuffer(std::uint32_t id);
    std::shared_ptr<SharedMemory> buffer(std::uint32_t id) const;

    // The peer has left: runs the invalidation handler once, answers nothing more, and
    // frees its calls, buffers, queued notifications and host object.
    void gone();
    // The service is going away: forgets the handler without calling it.
    void forget();

private:
    const std::string peer_;
    const std::shared_ptr<BusConnection> bus_;
    const std::chrono::milliseconds clientDeadline_;
    const std::shared_ptr<NoticeQueue> notices_;

    mutable std::mutex mutex_;
    std::shared_ptr<HarborBridgeHostProtocol> host_;
    std::function<void()> invalidationHandler_;
    std::vector<std::weak_ptr<PendingCall>> pending_;
    std::map<std::uint32_t, std::shared_ptr<SharedMemory>> buffers_;
};

}  // namespace skiff::service::dbus
