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

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <unordered_set>
#include <vector>

#include "common/bytes.hpp"
#include "common/shared_memory.hpp"
#include "relay/relay_schema.hpp"
#include "service/dbus/harbor_client.hpp"
#include "volume/errno_map.hpp"
#include "volume/listing_pages.hpp"
#include "volume/range_set.hpp"

namespace skiff::volume {

using relay::RelayItemSummary;

// A read at a version the item no longer has: the caller drops what it cached of it.
inline constexpr int kVersionChangedErrno = ESTALE;

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
    // The process id of the skiffd this volume serves (0 while none): its pokes of items
    // only refresh them. Learned at start and on every reattach().
    pid_t serviceProcess() const { return serviceProcess_.load(); }

    // Tells the user, through the service's volume notice that `skiffctl watch` shows, what
    // happened to their files. One-way: it never waits for the service.
    void notice(const std::string& text);

    Answer<RelayItemSummary> lookup(const std::string& identifier, relay::RelayLookupSource source);
    // Every item of the directory, following the app's pages within the bounds above. Each
    // entry is filed as identifier + "/" + its own filename whatever identifier the reply
    // claims; a page with an entry of another folder is EIO; an entry whose name cannot be
    // a file name here (empty, ".", "..", '/' or NUL in it, not UTF-8, over 255 bytes) is
    // left out with a log line. With `onePage`, a folder the app pages is EFBIG at once.
    Answer<std::vector<RelayItemSummary>> list(const std::string& identifier, bool onePage = false);
    // The chunk of up to transfer::kChunkSize bytes at offset. With knownSize, a reply
    // shorter than what the item holds there is EIO, never the end of the file.
    int readChunk(const std::string& identifier, std::uint64_t offset, Bytes& out,
                  std::optional<std::uint64_t> knownSize = std::nullopt);
    // length bytes (at most transfer::kChunkSize) at offset of the item at version; out gets
    // fewer only at the item's end (EIO when knownSize says more exist).
    // kVersionChangedErrno when the item no longer has that version.
    int readRange(const std::string& identifier, std::uint64_t offset, std::uint32_t length,
                  const Bytes& version, Bytes& out,
                  std::optional<std::uint64_t> knownSize = std::nullopt);
    // Times and mode bits of the item; absent ones are left as they are.
    Answer<RelayItemSummary> setAttributes(const std::string& identifier,
                                           std::optional<relay::RelayTimespec> modifyTime,
                                           std::optional<relay::RelayTimespec> accessTime,
                                           std::optional<std::uint32_t> mode);
    struct Space {
        std::uint64_t totalBytes = 0;
        std::uint64_t freeBytes = 0;
    };
    Answer<Space> space();
    int remove(const std::string& identifier);
    Answer<RelayItemSummary> makeDirectory(const std::string& identifier);
    Answer<RelayItemSummary> rename(const std::string& identifier,
                                    const std::string& newIdentifier);

    // Stages the item at size from the content it has now (a new, empty item when
    // baseVersion is absent), sends the dirty ranges read from fd, commits, and gives a new
    // item its mode (and the times and mode the plan carries). A push of up to kOrderedPushBytes
    // goes out as one ordered relay (one round trip); a larger one waits for each answer, its
    // chunks through the shared buffer. kConflictErrno when the phone's copy is no longer
    // baseVersion. Nothing is lost on a failure: the caller keeps its bytes and its record and
    // tries again.
    struct PushPlan {
        std::string identifier;
        std::optional<Bytes> baseVersion;
        std::uint64_t size = 0;
        std::vector<ByteRange> dirty;
        int fd = -1;  // the local copy, read with pread; the caller keeps it open
        // Set after the commit: a new item's permission bits, and what the user set here
        // while the bytes were not on the phone yet.
        std::optional<std::uint32_t> mode;
        std::optional<relay::RelayTimespec> modifyTime;
        std::optional<relay::RelayTimespec> accessTime;
        bool setsAttributes() const { return mode || modifyTime || accessTime; }
        // The stage is open already (a streaming writer's): only the ranges and the commit go.
        bool staged = false;
    };
    // With an error, `committed` says the phone committed a version anyway (a chunk of an
    // ordered push failed after its stage): value holds it, the next push starts from it.
    struct Pushed {
        int error = 0;
        RelayItemSummary value{};
        bool committed = false;
    };
    static constexpr std::uint64_t kOrderedPushBytes = std::uint64_t{1} << 20;
    Pushed pushRanges(const PushPlan& plan);
    // The first steps of a push, for a writer whose chunks go while it writes: the stage,
    // and bytes of the local copy into it. kConflictErrno as for pushRanges.
    int stage(const PushPlan& plan);
    int sendRange(const PushPlan& plan, ByteRange range);

private:
    struct Reply {
        int error = 0;
        Bytes body;
    };
    Reply relay(relay::UsbMuxRelaySelector selector, const Bytes& body,
                Operation operation = Operation::other);
    // Writes the request into a slot of the shared buffer (fill gets the room, at most
    // a write chunk, and returns the length written or nothing on failure) and takes
    // the answer from the rest of the slot: large bodies stay off the bus.
    Reply relayShared(
        relay::UsbMuxRelaySelector selector,
        const std::function<std::optional<std::size_t>(std::span<std::uint8_t>)>& fill);
    // Code 9 or 10 answered with bytes; checks the answer's length against what was asked.
    int readInto(relay::UsbMuxRelaySelector selector, const Bytes& body, std::uint64_t offset,
                 std::uint32_t length, std::optional<std::uint64_t> knownSize, Bytes& out);
    // The push as one ordered relay; nothing when it does not fit one.
    std::optional<Pushed> pushInOrder(const PushPlan& plan, const std::vector<ByteRange>& send);
    // The push one request at a time.
    Pushed pushOneByOne(const PushPlan& plan, const std::vector<ByteRange>& send);
    // A request answered with an item's summary.
    template <class Request>
    Answer<RelayItemSummary> summaryOf(relay::UsbMuxRelaySelector selector, const Request& request);
    std::optional<std::uint32_t> bufferId();
    std::size_t takeSlot();
    void giveSlot(std::size_t slot);

    service::dbus::HarborClient& client_;
    std::atomic<pid_t> serviceProcess_{0};
    std::unique_ptr<SharedMemory> buffer_;
    std::mutex slotMutex_;  // also guards bufferId_
    std::optional<std::uint32_t> bufferId_;
    std::condition_variable slotFreed_;
    std::vector<std::size_t> freeSlots_;
};

}  // namespace skiff::volume
