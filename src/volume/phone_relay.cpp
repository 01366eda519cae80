#include "volume/phone_relay.hpp"

#include <algorithm>
#include <cstring>
#include <exception>
#include <optional>
#include <unordered_set>
#include <utility>

#include "common/file_io.hpp"
#include "common/log.hpp"
#include "common/uuid.hpp"
#include "relay/item_requests.hpp"
#include "relay/volume_records.hpp"
#include "transfer/file_io_records.hpp"

namespace skiff::volume {

namespace {

using relay::UsbMuxRelaySelector;

// A slot holds one request, at most a write chunk (4 MiB and its header with an identifier
// of at most 64 KiB), followed by room for the largest answer the service writes. Pages are
// touched only as far as a request and its answer reach.
constexpr std::size_t kParamCapacity = 65'536 + 16 + transfer::kChunkSize;
constexpr std::size_t kSlotBytes = kParamCapacity + service::kMaxRelayBodyBytes;
constexpr std::size_t kSlotCount = 4;
// Bodies up to this size go on the bus itself; larger ones through the shared buffer.
constexpr std::size_t kBusBodyLimit = 65'536;
// An ordered push whose chunk the app took only part of; never reported to the caller.
constexpr int kShortChunkErrno = EAGAIN;

// The errno of a relay's answer; a stage or a commit refused by the app names its status in
// a rejection record.
int errnoOfAnswer(std::int64_t status, std::int64_t code, const Bytes& response,
                  Operation operation) {
    const int error = errnoOfRelay(status, code, operation);
    if (status == static_cast<std::int64_t>(relay::UsbMuxRelayError::deviceStatus)) {
        if (const auto rejection = json::decode<transfer::FileIODeviceRejection>(response)) {
            const int named = errnoOfDeviceStatus(rejection->status, operation);
            return named == 0 ? EIO : named;
        }
    }
    return error;
}

std::optional<Bytes> stageBody(const PhoneRelay::PushPlan& plan) {
    return json::encode(
        transfer::RelayTruncateWriteRequest{plan.identifier, plan.size, plan.baseVersion});
}

// Writes a write-chunk request into room: `header` (for [at, at + length)) and those bytes,
// read from the local copy straight into it. Its length, or nothing when it does not fit or
// the copy cannot be read.
std::optional<std::size_t> fillChunk(const PhoneRelay::PushPlan& plan, const Bytes& header,
                                     std::uint64_t at, std::uint64_t length,
                                     std::span<std::uint8_t> room) {
    if (header.size() + length > room.size()) {
        return std::nullopt;
    }
    std::memcpy(room.data(), header.data(), header.size());
    if (readUpTo(plan.fd, room.subspan(header.size(), length), at) != length) {
        log::xpc().error("skiff-fs cannot read the local copy of %{public}s",
                         plan.identifier.c_str());
        return std::nullopt;
    }
    return header.size() + length;
}

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
    serviceProcess_ = static_cast<pid_t>(client_.serviceProcessId());
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
    // The id may soon name some other process, whose touches are the user's.
    serviceProcess_ = 0;
    std::lock_guard guard(slotMutex_);
    bufferId_.reset();
}

void PhoneRelay::notice(const std::string& text) {
    client_.postVolumeNotice(text);
}

bool PhoneRelay::reattach() {
    try {
        const auto id = client_.registerSharedBuffer(buffer_->fd());
        serviceProcess_ = static_cast<pid_t>(client_.serviceProcessId());
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
        const int error = errnoOfAnswer(reply.status, reply.code, reply.response, operation);
        return {error, std::move(reply.response)};
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

Answer<std::vector<RelayItemSummary>> PhoneRelay::list(const std::string& identifier,
                                                       bool onePage) {
    ListingPages pages(identifier, std::chrono::steady_clock::now() + kListTimeLimit);
    relay::RelayListRequest request{identifier, std::nullopt};
    do {
        const auto body = json::encode(request);
        if (!body) {
            return {EINVAL, {}};
        }
        auto reply = relay(UsbMuxRelaySelector::listDirectory, *body);
        if (reply.error != 0) {
            return {reply.error, {}};
        }
        if (const int error = pages.add(reply.body, request.cursor); error != 0) {
            return {error, {}};
        }
        if (onePage && request.cursor) {
            return {EFBIG, {}};
        }
    } while (request.cursor);
    return {0, pages.take()};
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

PhoneRelay::Reply PhoneRelay::relayShared(
    UsbMuxRelaySelector selector,
    const std::function<std::optional<std::size_t>(std::span<std::uint8_t>)>& fill) {
    // Between two skiffds the buffer is nobody's; a call fails at once rather than wait.
    const auto id = bufferId();
    if (!id) {
        return {EIO, {}};
    }
    const auto slot = takeSlot();
    const std::uint64_t base = slot * kSlotBytes;
    const auto room = buffer_->bytes().subspan(base, kSlotBytes);
    Reply reply;
    try {
        const auto length = fill(room.first(kParamCapacity));
        if (!length) {
            reply.error = EIO;
        } else {
            // The answer goes right after the request, in the rest of the slot.
            const auto capacity = service::kMaxRelayBodyBytes;
            const auto answer = client_.relayToUsbMuxShared(
                static_cast<std::int64_t>(selector), *id, base, *length, base + *length, capacity);
            reply.error = errnoOfRelay(answer.status, answer.code);
            if (reply.error == 0 && answer.replyLength > capacity) {
                reply.error = EIO;
            }
            if (reply.error == 0) {
                const auto start = room.begin() + static_cast<std::ptrdiff_t>(*length);
                reply.body.assign(start, start + static_cast<std::ptrdiff_t>(answer.replyLength));
            }
        }
    } catch (const std::exception& e) {
        log::xpc().error("skiff-fs relay %{public}lld through the shared buffer failed: %{public}s",
                         static_cast<long long>(selector), e.what());
        reply.error = EIO;
    }
    giveSlot(slot);
    return reply;
}

int PhoneRelay::readInto(UsbMuxRelaySelector selector, const Bytes& body, std::uint64_t offset,
                         std::uint32_t length, std::optional<std::uint64_t> knownSize, Bytes& out) {
    const auto copyIn = [&](std::span<std::uint8_t> room) -> std::optional<std::size_t> {
        std::memcpy(room.data(), body.data(), body.size());
        return body.size();
    };
    auto reply = relayShared(selector, copyIn);
    if (reply.error != 0) {
        return reply.error;
    }
    // Fewer bytes than asked mean the item's end only where the caller knows no more exist;
    // anywhere else they are a fault, and taking them as the end would cut the file short.
    const std::uint64_t held = knownSize && *knownSize > offset ? *knownSize - offset : 0;
    const auto expected = std::min<std::uint64_t>(length, held);
    if (reply.body.size() > length || reply.body.size() < expected) {
        log::xpc().error("skiff-fs asked for %{public}u bytes at %{public}llu and got %{public}zu",
                         length, static_cast<unsigned long long>(offset), reply.body.size());
        return EIO;
    }
    out = std::move(reply.body);
    return 0;
}

int PhoneRelay::readChunk(const std::string& identifier, std::uint64_t offset, Bytes& out,
                          std::optional<std::uint64_t> knownSize) {
    const auto body = transfer::encodeReadChunkRequest(identifier, offset);
    if (!body) {
        return ENAMETOOLONG;
    }
    return readInto(UsbMuxRelaySelector::readChunk, *body, offset, transfer::kChunkSize, knownSize,
                    out);
}

int PhoneRelay::readRange(const std::string& identifier, std::uint64_t offset, std::uint32_t length,
                          const Bytes& version, Bytes& out,
                          std::optional<std::uint64_t> knownSize) {
    if (length > relay::kMaxRangeReadBytes) {
        return EINVAL;
    }
    const auto body = relay::encodeRangeReadRequest({identifier, offset, length, version});
    if (!body) {
        return ENAMETOOLONG;
    }
    const int error =
        readInto(UsbMuxRelaySelector::readVersionRange, *body, offset, length, knownSize, out);
    return error == kConflictErrno ? kVersionChangedErrno : error;
}

Answer<RelayItemSummary> PhoneRelay::setAttributes(const std::string& identifier,
                                                   std::optional<relay::RelayTimespec> modifyTime,
                                                   std::optional<relay::RelayTimespec> accessTime,
                                                   std::optional<std::uint32_t> mode) {
    return summaryOf(UsbMuxRelaySelector::setAttributes,
                     relay::RelaySetAttributesRequest{identifier, modifyTime, accessTime, mode});
}

Answer<PhoneRelay::Space> PhoneRelay::space() {
    const auto body = json::encode(relay::RelaySpaceRequest{});
    if (!body) {
        return {EINVAL, {}};
    }
    auto reply = relay(UsbMuxRelaySelector::storageSpace, *body);
    if (reply.error != 0) {
        return {reply.error, {}};
    }
    const auto space = json::decode<relay::RelaySpaceReply>(reply.body);
    // Free space above the total is no answer a disk gives.
    if (!space || space->freeBytes > space->totalBytes) {
        return {EIO, {}};
    }
    return {0, Space{space->totalBytes, space->freeBytes}};
}

int PhoneRelay::sendRange(const PushPlan& plan, ByteRange range) {
    auto at = range.offset;
    while (at < range.end()) {
        const auto piece = std::min<std::uint64_t>(transfer::kChunkSize, range.end() - at);
        const auto header = transfer::encodeWriteChunkHeader(plan.identifier, at, piece);
        if (!header) {
            return ENAMETOOLONG;
        }
        const auto fill = [&](std::span<std::uint8_t> room) {
            return fillChunk(plan, *header, at, piece, room);
        };
        Reply reply;
        if (header->size() + piece <= kBusBodyLimit) {
            Bytes body(header->size() + piece);
            reply = fill(body) ? relay(UsbMuxRelaySelector::writeChunk, body) : Reply{EIO, {}};
        } else {
            reply = relayShared(UsbMuxRelaySelector::writeChunk, fill);
        }
        if (reply.error != 0) {
            return reply.error;
        }
        // The app says where the next chunk starts; a reply that does not move forward, or
        // moves past what was sent, would loop or leave a hole.
        const auto answer = json::decode<transfer::RelayWriteChunkResponse>(reply.body);
        if (!answer || answer->nextOffset <= at || answer->nextOffset > at + piece) {
            return EIO;
        }
        at = answer->nextOffset;
    }
    return 0;
}

PhoneRelay::Pushed PhoneRelay::pushRanges(const PushPlan& plan) {
    // Bytes past the size were cut by the user after writing them: the stage drops them.
    RangeSet send;
    for (const auto& range : plan.dirty) {
        send.add(range.offset, range.length);
    }
    send.truncate(plan.size);
    const auto ranges = send.ranges();
    auto pushed = plan.staged ? std::nullopt : pushInOrder(plan, ranges);
    if (!pushed) {
        return pushOneByOne(plan, ranges);
    }
    if (pushed->error != kShortChunkErrno) {
        return *pushed;
    }
    // The app took less of a chunk than it was sent: the one-by-one path follows its lead,
    // from what the phone holds now.
    auto again = plan;
    if (pushed->committed) {
        again.baseVersion = pushed->value.contentVersion;
    }
    auto retried = pushOneByOne(again, ranges);
    if (retried.error != 0 && pushed->committed) {
        retried.value = pushed->value;
        retried.committed = true;
    }
    return retried;
}

int PhoneRelay::stage(const PushPlan& plan) {
    const auto body = stageBody(plan);
    return body ? relay(UsbMuxRelaySelector::truncateWrite, *body).error : EINVAL;
}

PhoneRelay::Pushed PhoneRelay::pushOneByOne(const PushPlan& plan,
                                            const std::vector<ByteRange>& send) {
    if (const int error = plan.staged ? 0 : stage(plan); error != 0) {
        return {error};
    }
    for (const auto& range : send) {
        if (const int error = sendRange(plan, range); error != 0) {
            return {error};
        }
    }
    auto committed = summaryOf(UsbMuxRelaySelector::commitWrite,
                               transfer::RelayCommitWriteRequest{plan.identifier});
    if (committed.error != 0) {
        return {committed.error};
    }
    // A new item takes the phone's default mode; the one it was created with (git's
    // executables, a private 0600 file) follows it there.
    const bool modeDiffers = plan.mode && (committed.value.mode & 07777) != *plan.mode;
    if (modeDiffers || plan.modifyTime || plan.accessTime) {
        if (auto set = setAttributes(plan.identifier, plan.modifyTime, plan.accessTime, plan.mode);
            set.error == 0) {
            committed = std::move(set);
        }
    }
    return {0, std::move(committed.value)};
}

std::optional<PhoneRelay::Pushed> PhoneRelay::pushInOrder(const PushPlan& plan,
                                                          const std::vector<ByteRange>& send) {
    std::uint64_t bytes = 0;
    for (const auto& range : send) {
        bytes += range.length;
    }
    const std::size_t count = send.size() + 2 + (plan.setsAttributes() ? 1 : 0);
    if (bytes > kOrderedPushBytes || count > service::kMaxOrderedRelays) {
        return std::nullopt;
    }
    const auto stage = stageBody(plan);
    const auto commit = json::encode(transfer::RelayCommitWriteRequest{plan.identifier});
    const auto mode = json::encode(relay::RelaySetAttributesRequest{
        plan.identifier, plan.modifyTime, plan.accessTime, plan.mode});
    if (!stage || !commit || !mode) {
        return Pushed{EINVAL};
    }
    std::vector<service::OrderedRelayRequest> requests;
    requests.reserve(count);
    requests.push_back({static_cast<std::int64_t>(UsbMuxRelaySelector::truncateWrite), *stage});
    for (const auto& range : send) {
        const auto header =
            transfer::encodeWriteChunkHeader(plan.identifier, range.offset, range.length);
        if (!header) {
            return Pushed{ENAMETOOLONG};
        }
        Bytes body(header->size() + range.length);
        if (!fillChunk(plan, *header, range.offset, range.length, body)) {
            return Pushed{EIO};
        }
        requests.push_back(
            {static_cast<std::int64_t>(UsbMuxRelaySelector::writeChunk), std::move(body)});
    }
    requests.push_back({static_cast<std::int64_t>(UsbMuxRelaySelector::commitWrite), *commit});
    if (plan.setsAttributes()) {
        requests.push_back({static_cast<std::int64_t>(UsbMuxRelaySelector::setAttributes), *mode});
    }
    std::vector<service::OrderedRelayAnswer> answers;
    try {
        answers = client_.relayToUsbMuxInOrder(std::move(requests));
    } catch (const std::exception& e) {
        log::xpc().error("skiff-fs push of %{public}s failed: %{public}s", plan.identifier.c_str(),
                         e.what());
        return Pushed{EIO};
    }
    if (answers.size() != count) {
        return Pushed{EIO};
    }
    const auto errorOf = [&](std::size_t i) {
        return errnoOfAnswer(answers[i].status, answers[i].code, answers[i].response,
                             Operation::other);
    };
    // The first failure before the commit is the push's; the app handled the requests in
    // order, so later ones may have failed only because of it.
    int error = errorOf(0);
    for (std::size_t i = 0; i < send.size() && error == 0; ++i) {
        if ((error = errorOf(i + 1)) != 0) {
            break;
        }
        const auto answer =
            json::decode<transfer::RelayWriteChunkResponse>(answers[i + 1].response);
        const auto end = send[i].offset + send[i].length;
        if (!answer || answer->nextOffset <= send[i].offset || answer->nextOffset > end) {
            error = EIO;
        } else if (answer->nextOffset < end) {
            error = kShortChunkErrno;
        }
    }
    const auto commitAt = send.size() + 1;
    const auto committed = errorOf(commitAt) == 0
                               ? json::decode<RelayItemSummary>(answers[commitAt].response)
                               : std::nullopt;
    if (!committed) {
        return Pushed{error != 0 ? error : errorOf(commitAt) != 0 ? errorOf(commitAt) : EIO};
    }
    if (error != 0) {
        return Pushed{error, *committed, true};
    }
    if (plan.setsAttributes() && errorOf(commitAt + 1) == 0) {
        if (auto moded = json::decode<RelayItemSummary>(answers[commitAt + 1].response)) {
            return Pushed{0, std::move(*moded)};
        }
    }
    return Pushed{0, *committed};
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

}  // namespace skiff::volume
