#include "service/dbus/peer_connection.hpp"

#include <algorithm>
#include <atomic>
#include <utility>

#include "service/dbus/bus_names.hpp"

namespace skiff::service::dbus {

namespace {

using Clock = std::chrono::steady_clock;

// Calls into one client, each with the peer's deadline. A failed call goes to the error
// handler and its reply is never invoked.
class RemoteClientProxy final : public HarborBridgeClientProtocol {
public:
    RemoteClientProxy(std::shared_ptr<BusConnection> bus, std::string peer,
                      std::chrono::milliseconds deadline, std::shared_ptr<NoticeQueue> notices,
                      std::function<void(const ClientCallFailure&)> errorHandler)
        : bus_(std::move(bus)),
          peer_(std::move(peer)),
          deadline_(deadline),
          notices_(std::move(notices)),
          errorHandler_(std::move(errorHandler)) {}

    void echo(std::function<void()> reply) override { call("Echo", std::move(reply)); }

    void benchmarkIngest(Bytes data, std::function<void(std::uint64_t)> reply) override {
        call("BenchmarkIngest", std::move(reply), std::move(data));
    }

    void runExtToHostPing(std::int64_t value, std::function<void(double)> reply) override {
        call("RunExtToHostPing", std::move(reply), value);
    }

    void benchmarkSendChunks(std::uint64_t chunkSize, std::uint64_t chunkCount,
                             std::function<void(double)> reply) override {
        call("BenchmarkSendChunks", std::move(reply), chunkSize, chunkCount);
    }

    void notifyClient(std::int64_t message, Bytes param) override {
        notices_->offer(message, std::move(param));
    }

private:
    template <typename... R, typename... A>
    void call(const char* method, std::function<void(R...)> reply, A... args) {
        auto onError = [errorHandler = errorHandler_, deadline = deadline_,
                        start = Clock::now()](const CallError& error) {
            if (!errorHandler) {
                return;
            }
            // sd-bus reports its own time-out as NoReply, like a peer that left; the
            // clock tells them apart.
            const bool late = error.name == kErrorNoReply && Clock::now() - start >= deadline;
            errorHandler({error.name + ": " + error.text, late});
        };
        bus_->post([bus = bus_, peer = peer_, deadline = deadline_, method,
                    reply = std::move(reply), onError = std::move(onError),
                    args = std::make_tuple(std::move(args)...)] {
            startCall(
                *bus, peer.c_str(), kClientPath, kClientInterface, method,
                toUsec(std::chrono::duration_cast<std::chrono::microseconds>(deadline)),
                [&](sd_bus_message* m) {
                    return std::apply([&](const auto&... a) { return wire::appendAll(m, a...); },
                                      args);
                },
                readReply<R...>(reply, onError), onError);
        });
    }

    std::shared_ptr<BusConnection> bus_;
    std::string peer_;
    std::chrono::milliseconds deadline_;
    std::shared_ptr<NoticeQueue> notices_;
    std::function<void(const ClientCallFailure&)> errorHandler_;
};

}  // namespace

PeerConnection::PeerConnection(std::shared_ptr<BusConnection> bus, std::string peer,
                               std::chrono::milliseconds clientDeadline)
    : peer_(std::move(peer)),
      bus_(std::move(bus)),
      clientDeadline_(clientDeadline),
      notices_(NoticeQueue::create(
          bus_, "client " + peer_,
          [peer = peer_](BusConnection& bus, std::int64_t message, const Bytes& param) {
              return sendOneWay(
                  bus, peer.c_str(), kClientPath, kClientInterface, "NotifyClient",
                  [&](sd_bus_message* m) { return wire::appendAll(m, message, param); });
          })) {}

void PeerConnection::setExportedObject(std::shared_ptr<HarborBridgeHostProtocol> host) {
    std::lock_guard guard(mutex_);
    host_ = std::move(host);
}

HarborBridgeHostProtocol* PeerConnection::exportedObject() const {
    std::lock_guard guard(mutex_);
    return host_.get();
}

std::shared_ptr<HarborBridgeHostProtocol> PeerConnection::exportedObjectShared() const {
    std::lock_guard guard(mutex_);
    return host_;
}

void PeerConnection::setInvalidationHandler(std::function<void()> handler) {
    std::lock_guard guard(mutex_);
    invalidationHandler_ = std::move(handler);
}

std::shared_ptr<HarborBridgeClientProtocol> PeerConnection::remoteObjectProxy(
    std::function<void(const ClientCallFailure&)> errorHandler) {
    return std::make_shared<RemoteClientProxy>(bus_, peer_, clientDeadline_, notices_,
                                               std::move(errorHandler));
}

std::shared_ptr<PendingCall> PeerConnection::track(sd_bus_message* call) {
    auto pending = std::make_shared<PendingCall>(bus_, call);
    std::lock_guard guard(mutex_);
    std::erase_if(pending_, [](const std::weak_ptr<PendingCall>& p) { return p.expired(); });
    pending_.push_back(pending);
    return pending;
}

std::uint32_t PeerConnection::registerBuffer(std::shared_ptr<SharedMemory> buffer) {
    std::lock_guard guard(mutex_);
    if (buffers_.size() >= kMaxSharedBuffersPerPeer) {
        return 0;
    }
    // Ids come from one count for the whole service, so an id another connection was
    // given is never one of this connection's and is refused instead of naming memory.
    static std::atomic<std::uint32_t> lastId{0};
    std::uint32_t id = 0;
    while (id == 0) {
        id = ++lastId;
    }
    buffers_.emplace(id, std::move(buffer));
    return id;
}

bool PeerConnection::releaseBuffer(std::uint32_t id) {
    std::lock_guard guard(mutex_);
    return buffers_.erase(id) > 0;
}

std::shared_ptr<SharedMemory> PeerConnection::buffer(std::uint32_t id) const {
    std::lock_guard guard(mutex_);
    auto found = buffers_.find(id);
    return found == buffers_.end() ? nullptr : found->second;
}

void PeerConnection::gone() {
    std::function<void()> handler;
    std::vector<std::weak_ptr<PendingCall>> pending;
    std::map<std::uint32_t, std::shared_ptr<SharedMemory>> buffers;
    std::shared_ptr<HarborBridgeHostProtocol> host;
    {
        std::lock_guard guard(mutex_);
        handler = std::exchange(invalidationHandler_, nullptr);
        pending.swap(pending_);
        buffers.swap(buffers_);
    }
    if (handler) {
        handler();
    }
    for (auto& weak : pending) {
        if (auto call = weak.lock()) {
            call->abandon();
        }
    }
    notices_->clear();
    {
        // Work that holds only a weak reference to the host object (a measurement loop)
        // sees it gone and stops.
        std::lock_guard guard(mutex_);
        host = std::move(host_);
    }
}

void PeerConnection::forget() {
    std::lock_guard guard(mutex_);
    invalidationHandler_ = nullptr;
}

}  // namespace skiff::service::dbus
