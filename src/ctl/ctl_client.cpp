#include "ctl/ctl_client.hpp"

#include <atomic>
#include <chrono>
#include <utility>

namespace skiff::ctl {

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// The reply of one measurement, sent at most once whichever of success or failure comes
// first.
class OnceReply {
public:
    explicit OnceReply(std::function<void(double)> reply) : reply_(std::move(reply)) {}
    void operator()(double value) {
        if (!done_.exchange(true)) {
            reply_(value);
        }
    }

private:
    std::function<void(double)> reply_;
    std::atomic<bool> done_{false};
};

// Chunks go out one at a time: the next leaves when the previous one's reply arrives.
struct ChunkSender : std::enable_shared_from_this<ChunkSender> {
    std::shared_ptr<service::HarborBridgeHostProtocol> host;
    std::shared_ptr<OnceReply> reply;
    Bytes chunk;
    std::uint64_t remaining = 0;
    Clock::time_point start = Clock::now();

    void sendNext() {
        if (remaining == 0) {
            (*reply)(secondsSince(start));
            return;
        }
        --remaining;
        host->benchmarkIngest(chunk,
                              [self = shared_from_this()](std::uint64_t) { self->sendNext(); });
    }
};

}  // namespace

CtlClient::CtlClient(NotificationSink sink) : sink_(std::move(sink)) {}

void CtlClient::setHostFactory(HostFactory factory) {
    std::lock_guard guard(mutex_);
    hostFactory_ = std::move(factory);
}

std::shared_ptr<service::HarborBridgeHostProtocol> CtlClient::makeHost(
    std::function<void()> onError) {
    std::lock_guard guard(mutex_);
    return hostFactory_ ? hostFactory_(std::move(onError)) : nullptr;
}

void CtlClient::echo(std::function<void()> reply) {
    reply();
}

void CtlClient::benchmarkIngest(Bytes data, std::function<void(std::uint64_t)> reply) {
    reply(data.size());
}

void CtlClient::runExtToHostPing(std::int64_t value, std::function<void(double)> reply) {
    auto once = std::make_shared<OnceReply>(std::move(reply));
    auto host = makeHost([once] { (*once)(-1.0); });
    if (!host) {
        (*once)(-1.0);
        return;
    }
    const auto start = Clock::now();
    host->ping(value, [once, start](bool ok) { (*once)(ok ? secondsSince(start) : -1.0); });
}

void CtlClient::benchmarkSendChunks(std::uint64_t chunkSize, std::uint64_t chunkCount,
                                    std::function<void(double)> reply) {
    auto sender = std::make_shared<ChunkSender>();
    sender->reply = std::make_shared<OnceReply>(std::move(reply));
    sender->host = makeHost([reply = sender->reply] { (*reply)(-1.0); });
    if (!sender->host) {
        (*sender->reply)(-1.0);
        return;
    }
    sender->chunk.assign(chunkSize, 0);
    sender->remaining = chunkCount;
    sender->start = Clock::now();
    sender->sendNext();
}

void CtlClient::notifyClient(std::int64_t message, Bytes param) {
    if (sink_) {
        sink_(message, std::move(param));
    }
}

}  // namespace skiff::ctl
