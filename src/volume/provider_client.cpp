#include "volume/provider_client.hpp"

#include <chrono>
#include <exception>
#include <utility>

#include "common/once_reply.hpp"

namespace skiff::volume {

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Sends the chunks one after another, each when the previous one was taken.
void sendChunk(std::shared_ptr<service::HarborBridgeHostProtocol> host,
               std::shared_ptr<const Bytes> chunk, std::uint64_t left, Clock::time_point start,
               runtime::OnceReply<double> reply) {
    if (left == 0) {
        reply.resume(secondsSince(start));
        return;
    }
    host->benchmarkIngest(*chunk, [host, chunk, left, start, reply](std::uint64_t) {
        sendChunk(host, chunk, left - 1, start, reply);
    });
}

}  // namespace

void ProviderClient::setHostFactory(HostFactory factory) {
    std::lock_guard guard(mutex_);
    hostFactory_ = std::move(factory);
}

std::shared_ptr<service::HarborBridgeHostProtocol> ProviderClient::host(
    std::function<void()> onFailure) {
    std::lock_guard guard(mutex_);
    return hostFactory_ ? hostFactory_(std::move(onFailure)) : nullptr;
}

void ProviderClient::echo(std::function<void()> reply) {
    reply();
}

void ProviderClient::benchmarkIngest(Bytes data, std::function<void(std::uint64_t)> reply) {
    reply(data.size());
}

void ProviderClient::runExtToHostPing(std::int64_t value, std::function<void(double)> reply) {
    runtime::OnceReply<double> once(reply, [reply](std::exception_ptr) { reply(-1.0); });
    const auto host = this->host([once] { once.resume(-1.0); });
    if (!host) {
        once.resume(-1.0);
        return;
    }
    const auto start = Clock::now();
    host->ping(value, [once, start](bool ok) { once.resume(ok ? secondsSince(start) : -1.0); });
}

void ProviderClient::benchmarkSendChunks(std::uint64_t chunkSize, std::uint64_t chunkCount,
                                         std::function<void(double)> reply) {
    runtime::OnceReply<double> once(reply, [reply](std::exception_ptr) { reply(-1.0); });
    const auto host = this->host([once] { once.resume(-1.0); });
    if (!host) {
        once.resume(-1.0);
        return;
    }
    sendChunk(host, std::make_shared<const Bytes>(chunkSize, 0), chunkCount, Clock::now(),
              std::move(once));
}

void ProviderClient::notifyClient(std::int64_t, Bytes) {}

}  // namespace skiff::volume
