#pragma once
// The volume's requests to the companion app, carried by skiffd: look-ups, listings,
// chunk reads, tree changes and whole-file pushes. Each call blocks until the service
// answers (its bus calls carry a deadline) and reports failure as an errno, never by
// throwing: a lost phone, tunnel or service is EIO at once.
//
// Chunk reads come back through one shared buffer registered with the service at start;
// it holds a few slots so that concurrent reads and the read-ahead do not wait on each
// other.
//
// When skiffd restarts, the buffer it knew goes with it: detach() makes chunk reads fail
// at once until reattach() has handed the buffer to the new skiffd.
//
// Threads: any but the client's bus thread. The client must outlive this object.

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "common/bytes.hpp"
#include "common/shared_memory.hpp"
#include "relay/relay_schema.hpp"
#include "service/dbus/harbor_client.hpp"
#include "volume/errno_map.hpp"

namespace skiff::volume {

using relay::RelayItemSummary;

template <class T>
struct Answer {
    int error = 0;  // 0 when value holds the answer
    T value{};
};

class PhoneRelay {
public:
    // Registers the shared buffer. Throws service::dbus::BusError.
    explicit PhoneRelay(service::dbus::HarborClient& client);
    ~PhoneRelay();
    PhoneRelay(const PhoneRelay&) = delete;
    PhoneRelay& operator=(const PhoneRelay&) = delete;

    // skiffd left: the registered buffer is gone.
    void detach();
    // A new skiffd accepted the volume: registers the buffer with it. False (logged) when it
    // would not take it; reads then keep failing with EIO.
    bool reattach();

    Answer<RelayItemSummary> lookup(const std::string& identifier, relay::RelayLookupSource source);
    // Every item of the directory, following the app's pages.
    Answer<std::vector<RelayItemSummary>> list(const std::string& identifier);
    // The chunk of up to transfer::kChunkSize bytes at offset.
    int readChunk(const std::string& identifier, std::uint64_t offset, Bytes& out);
    int remove(const std::string& identifier);
    Answer<RelayItemSummary> makeDirectory(const std::string& identifier);
    Answer<RelayItemSummary> rename(const std::string& identifier,
                                    const std::string& newIdentifier);
    // Pushes the shared container's file `containerName` (byteCount bytes) as the item's
    // content, refused when the item's content version is no longer `expectedVersion`.
    // The container file is released (removed) afterwards, whatever the outcome.
    Answer<RelayItemSummary> push(const std::string& identifier, const Bytes& expectedVersion,
                                  const std::string& containerName, std::uint64_t byteCount);

private:
    struct Reply {
        int error = 0;
        Bytes body;
    };
    Reply relay(relay::UsbMuxRelaySelector selector, const Bytes& body, Operation operation);
    // A request answered with an item's summary.
    template <class Request>
    Answer<RelayItemSummary> summaryOf(relay::UsbMuxRelaySelector selector, const Request& request);
    std::optional<std::uint32_t> bufferId();
    std::size_t takeSlot();
    void giveSlot(std::size_t slot);

    service::dbus::HarborClient& client_;
    std::unique_ptr<SharedMemory> buffer_;
    std::mutex slotMutex_;  // also guards bufferId_
    std::optional<std::uint32_t> bufferId_;
    std::condition_variable slotFreed_;
    std::vector<std::size_t> freeSlots_;
};

}  // namespace skiff::volume
