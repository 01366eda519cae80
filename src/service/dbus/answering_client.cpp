#include "service/dbus/answering_client.hpp"

#include <chrono>
#include <exception>
#include <utility>

#include "common/once_reply.hpp"

namespace skiff::service::dbus {

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// The reply of one measurement, sent once whichever of success or failure comes first;
// a measurement that fails or is lost answers -1.
runtime::OnceReply<double> measurementReply(std::function<void(double)> reply) {
    return runtime::OnceReply<double>(reply, [reply](std::exception_ptr) { reply(-1.0); });
}

// Chunks go out one at a time: the next leaves when the previous one's reply arrives.
struct ChunkSender : std::enable_shared_from_this<ChunkSender> {
    std::shared_ptr<HarborBridgeHostProtocol> host;
    runtime::OnceReply<double> reply;
    Bytes chunk;
    std::uint64_t remaining = 0;
    Clock::time_point start = Clock::now();

    void sendNext() {
        if (remaining == 0) {
            reply.resume(secondsSince(start));
            return;
        }
        --remaining;
        host->benchmarkIngest(chunk,
                              [self = shared_from_this()](std::uint64_t) { self->sendNext(); });
    }
};

}  // namespace

AnsweringClient::AnsweringClient(NotificationSink sink) : sink_(std::move(sink)) {}

void AnsweringClient::setHostFactory(HostFactory factory) {
    std::lock_guard guard(mutex_);
    hostFactory_ = std::move(factory);
}

std::shared_ptr<HarborBridgeHostProtocol> AnsweringClient::makeHost(std::function<void()> onError) {
    std::lock_guard guard(mutex_);
    return hostFactory_ ? hostFactory_(std::move(onError)) : nullptr;
}

void AnsweringClient::echo(std::function<void()> reply) {
    reply();
}

void AnsweringClient::benchmarkIngest(Bytes data, std::function<void(std::uint64_t)> reply) {
    reply(data.size());
}

void AnsweringClient::runExtToHostPing(std::int64_t value, std::function<void(double)> reply) {
    auto once = measurementReply(std::move(reply));
    auto host = makeHost([once] { once.resume(-1.0); });
    if (!host) {
        once.resume(-1.0);
        return;
    }
    const auto start = Clock::now();
    host->ping(value, [once, start](bool ok) { once.resume(ok ? secondsSince(start) : -1.0); });
}

void AnsweringClient::benchmarkSendChunks(std::uint64_t chunkSize, std::uint64_t chunkCount,
                                          std::function<void(double)> reply) {
    auto sender = std::make_shared<ChunkSender>();
    sender->reply = measurementReply(std::move(reply));
    sender->host = makeHost([once = sender->reply] { once.resume(-1.0); });
    if (!sender->host) {
        sender->reply.resume(-1.0);
        return;
    }
    sender->chunk.assign(chunkSize, 0);
    sender->remaining = chunkCount;
    sender->start = Clock::now();
    sender->sendNext();
}

void AnsweringClient::notifyClient(std::int64_t message, Bytes param) {
    if (sink_) {
        sink_(message, std::move(param));
    }
}

}  // namespace skiff::service::dbus
