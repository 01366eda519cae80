#include "volume/phone_relay.hpp"

#include <cstring>
#include <exception>
#include <optional>
#include <utility>

#include "common/log.hpp"
#include "common/uuid.hpp"
#include "relay/item_requests.hpp"
#include "transfer/file_io_records.hpp"

namespace skiff::volume {

namespace {

using relay::UsbMuxRelaySelector;

// A slot holds one chunk request (identifier of at most 64 KiB and a few integers) and
// the largest answer the service writes.
constexpr std::size_t kParamCapacity = 65'536 + 16;
constexpr std::size_t kSlotBytes = kParamCapacity + service::kMaxRelayBodyBytes;
constexpr std::size_t kSlotCount = 4;

template <class T>
Answer<T> decoded(const std::optional<T>& value) {
    if (!value) {
        return {EIO, {}};
    }
    return {0, *value};
}

}  // namespace

PhoneRelay::PhoneRelay(service::dbus::HarborClient& client)
    : client_(client), buffer_(SharedMemory::create(kSlotCount * kSlotBytes, "skiff-fs")) {
    bufferId_ = client_.registerSharedBuffer(buffer_->fd());
    for (std::size_t slot = 0; slot < kSlotCount; ++slot) {
        freeSlots_.push_back(slot);
    }
}

PhoneRelay::~PhoneRelay() {
    const auto id = bufferId();
    if (!id) {
        return;
    }
    try {
        client_.releaseSharedBuffer(*id);
    } catch (const std::exception&) {
        // The service went away and took the buffer with it.
    }
}

std::optional<std::uint32_t> PhoneRelay::bufferId() {
    std::lock_guard guard(slotMutex_);
    return bufferId_;
}

void PhoneRelay::detach() {
    std::lock_guard guard(slotMutex_);
    bufferId_.reset();
}

bool PhoneRelay::reattach() {
    try {
        const auto id = client_.registerSharedBuffer(buffer_->fd());
        std::lock_guard guard(slotMutex_);
        bufferId_ = id;
        return true;
    } catch (const std::exception& e) {
        log::xpc().error("skiff-fs cannot hand its buffer to skiffd: %{public}s", e.what());
        detach();
        return false;
    }
}

PhoneRelay::Reply PhoneRelay::relay(UsbMuxRelaySelector selector, const Bytes& body,
                                    Operation operation) {
    try {
        auto reply = client_.relayToUsbMux(static_cast<std::int64_t>(selector), body);
        return {errnoOfRelay(reply.status, reply.code, operation), std::move(reply.response)};
    } catch (const std::exception& e) {
        log::xpc().error("skiff-fs relay %{public}lld failed: %{public}s",
                         static_cast<long long>(selector), e.what());
        return {EIO, {}};
    }
}

template <class Request>
Answer<RelayItemSummary> PhoneRelay::summaryOf(UsbMuxRelaySelector selector,
                                               const Request& request) {
    const auto body = json::encode(request);
    if (!body) {
        return {EINVAL, {}};
    }
    auto reply = relay(selector, *body, Operation::other);
    if (reply.error != 0) {
        return {reply.error, {}};
    }
    return decoded(json::decode<RelayItemSummary>(reply.body));
}

Answer<RelayItemSummary> PhoneRelay::lookup(const std::string& identifier,
                                            relay::RelayLookupSource source) {
    return summaryOf(UsbMuxRelaySelector::lookupItem,
                     relay::RelayLookupRequest{identifier, source});
}

Answer<std::vector<RelayItemSummary>> PhoneRelay::list(const std::string& identifier) {
    Answer<std::vector<RelayItemSummary>> all;
    relay::RelayListRequest request{identifier, std::nullopt};
    do {
        const auto body = json::encode(request);
        if (!body) {
            return {EINVAL, {}};
        }
        auto reply = relay(UsbMuxRelaySelector::listDirectory, *body, Operation::other);
        if (reply.error != 0) {
            return {reply.error, {}};
        }
        auto page = json::decode<relay::RelayListReply>(reply.body);
        // A cursor that does not move would page forever.
        if (!page || (page->nextCursor && page->nextCursor == request.cursor)) {
            return {EIO, {}};
        }
        all.value.insert(all.value.end(), std::make_move_iterator(page->items.begin()),
                         std::make_move_iterator(page->items.end()));
        request.cursor = std::move(page->nextCursor);
    } while (request.cursor);
    return all;
}

std::size_t PhoneRelay::takeSlot() {
    std::unique_lock lock(slotMutex_);
    slotFreed_.wait(lock, [&] { return !freeSlots_.empty(); });
    const auto slot = freeSlots_.back();
    freeSlots_.pop_back();
    return slot;
}

void PhoneRelay::giveSlot(std::size_t slot) {
    std::lock_guard guard(slotMutex_);
    freeSlots_.push_back(slot);
    slotFreed_.notify_one();
}

int PhoneRelay::readChunk(const std::string& identifier, std::uint64_t offset, Bytes& out) {
    const auto body = transfer::encodeReadChunkRequest(identifier, offset);
    if (!body) {
        return ENAMETOOLONG;
    }
    // Between two skiffds the buffer is nobody's; a read fails at once rather than wait.
    const auto id = bufferId();
    if (!id) {
        return EIO;
    }
    const auto slot = takeSlot();
    const std::uint64_t base = slot * kSlotBytes;
    auto bytes = buffer_->bytes();
    std::memcpy(bytes.data() + base, body->data(), body->size());
    int error = 0;
    try {
        const auto reply = client_.relayToUsbMuxShared(
            static_cast<std::int64_t>(UsbMuxRelaySelector::readChunk), *id, base, body->size(),
            base + kParamCapacity, service::kMaxRelayBodyBytes);
        error = errnoOfRelay(reply.status, reply.code);
        if (error == 0 && reply.replyLength > service::kMaxRelayBodyBytes) {
            error = EIO;
        }
        if (error == 0) {
            const auto* start = bytes.data() + base + kParamCapacity;
            out.assign(start, start + reply.replyLength);
        }
    } catch (const std::exception& e) {
        log::xpc().error("skiff-fs chunk read failed: %{public}s", e.what());
        error = EIO;
    }
    giveSlot(slot);
    return error;
}

int PhoneRelay::remove(const std::string& identifier) {
    const auto body = json::encode(relay::RelayItemRequest{identifier});
    return body ? relay(UsbMuxRelaySelector::removeItem, *body, Operation::remove).error : EINVAL;
}

Answer<RelayItemSummary> PhoneRelay::makeDirectory(const std::string& identifier) {
    return summaryOf(UsbMuxRelaySelector::makeDirectory, relay::RelayItemRequest{identifier});
}

Answer<RelayItemSummary> PhoneRelay::rename(const std::string& identifier,
                                            const std::string& newIdentifier) {
    return summaryOf(UsbMuxRelaySelector::renameItem,
                     relay::RelayRenameRequest{identifier, newIdentifier});
}

Answer<RelayItemSummary> PhoneRelay::push(const std::string& identifier,
                                          const Bytes& expectedVersion,
                                          const std::string& containerName,
                                          std::uint64_t byteCount) {
    const auto token = Uuid::random().text();
    const auto request = json::encode(transfer::FileIOBeginWriteRequest{
        identifier, Uuid::random(), expectedVersion, token, containerName, byteCount});
    if (!request) {
        return {EINVAL, {}};
    }
    Answer<RelayItemSummary> answer;
    try {
        auto reply = client_.requestFileIO(
            static_cast<std::int64_t>(transfer::FileIOOperation::beginWrite), *request);
        answer.error = errnoOfFileIO(reply.status, reply.response);
        if (reply.status ==
            static_cast<std::int64_t>(transfer::FileIOBridgeError::deviceRejected)) {
            // A refusal answers no detail: the item's version tells a stale write apart.
            const auto now = lookup(identifier, relay::RelayLookupSource::fsGetAttributes);
            const bool gone = now.error == ENOENT && !expectedVersion.empty();
            const bool moved =
                now.error == 0 && now.value.contentVersion.value_or(Bytes{}) != expectedVersion;
            answer.error = gone || moved ? kConflictErrno : EIO;
        }
        if (answer.error == 0) {
            answer = decoded(json::decode<RelayItemSummary>(reply.response));
        }
        const auto release = json::encode(transfer::FileIOEndWriteRequest{token});
        client_.requestFileIO(static_cast<std::int64_t>(transfer::FileIOOperation::endWrite),
                              release.value_or(Bytes{}));
    } catch (const std::exception& e) {
        log::xpc().error("skiff-fs push failed: %{public}s", e.what());
        answer.error = EIO;
    }
    return answer;
}

}  // namespace skiff::volume
