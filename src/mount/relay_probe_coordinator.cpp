#include "mount/relay_probe_coordinator.hpp"

#include <algorithm>
#include <exception>
#include <optional>
#include <utility>

#include "common/check.hpp"
#include "common/log.hpp"
#include "common/once_reply.hpp"
#include "common/task.hpp"
#include "relay/relay_schema.hpp"

namespace skiff::mount {

namespace {

using relay::UsbMuxRelayError;
using Attempt = RelayProbeCoordinator::Attempt;
using AttemptReply = runtime::OnceReply<Attempt>;

Attempt attemptOf(std::int64_t status) {
    switch (static_cast<UsbMuxRelayError>(status)) {
        case UsbMuxRelayError::ok:
        case UsbMuxRelayError::deviceStatus:  // the app answered, if only to refuse
            return Attempt::answered;
        case UsbMuxRelayError::notConnected:
        case UsbMuxRelayError::transportFailed:
            return Attempt::retryable;
        default:
            return Attempt::failed;
    }
}

asio::awaitable<void> sendInto(std::shared_ptr<ProbeLink> link, AttemptReply reply) {
    std::int64_t status = static_cast<std::int64_t>(UsbMuxRelayError::transportFailed);
    try {
        status = co_await link->sendProbe();
    } catch (const std::exception& e) {
        log::xpc().error("[relay-probe] request failed: %{public}s", e.what());
    }
    reply.resume(attemptOf(status));
}

asio::awaitable<void> sleepInto(std::shared_ptr<ProbeClock> clock, ProbeClock::Duration d,
                                runtime::OnceReply<void> wake) {
    co_await clock->sleep(d);
    wake.resume();
}

}  // namespace

RelayProbeCoordinator::RelayProbeCoordinator(ProbeCollaborators collaborators)
    : Actor(collaborators.executor), collaborators_(std::move(collaborators)) {
    if (!collaborators_.volume || !collaborators_.usbConnected || !collaborators_.link) {
        fatalError("relay probe made without its volume, USB state or relay");
    }
    if (!collaborators_.clock) {
        collaborators_.clock = std::make_shared<SteadyProbeClock>();
    }
}

void RelayProbeCoordinator::usbDidConnect() {
    spawnIsolated(shared_from_this(), &RelayProbeCoordinator::doUsbDidConnect);
}

void RelayProbeCoordinator::usbDidDisconnect() {
    spawnIsolated(shared_from_this(), &RelayProbeCoordinator::doUsbDidDisconnect);
}

void RelayProbeCoordinator::volumeDidMount() {
    spawnIsolated(shared_from_this(), &RelayProbeCoordinator::doVolumeDidMount);
}

void RelayProbeCoordinator::volumeDidUnmount() {
    spawnIsolated(shared_from_this(), &RelayProbeCoordinator::doVolumeDidUnmount);
}

void RelayProbeCoordinator::fileSystemDidEnd() {
    spawnIsolated(shared_from_this(), &RelayProbeCoordinator::doFileSystemDidEnd);
}

void RelayProbeCoordinator::stop() {
    spawnIsolated(shared_from_this(), &RelayProbeCoordinator::doStop);
}

asio::awaitable<void> RelayProbeCoordinator::doUsbDidConnect() {
    if (collaborators_.volume->isMounted()) {
        log::xpc().info(
            "[relay-probe] USB connected while volume mounted — start mounted keepalive");
        startKeepalive();
    } else {
        startProbe();
    }
    co_return;
}

asio::awaitable<void> RelayProbeCoordinator::doUsbDidDisconnect() {
    endLoops();
    relayReachable_ = false;
    if (!collaborators_.volume->isMounted()) {
        log::xpc().error("[relay-probe] unmount after disconnect failed: %{public}s",
                         MountServiceError::notMounted().what());
        co_return;
    }
    try {
        co_await collaborators_.volume->unmount(true);
        log::xpc().info("[relay-probe] force unmount after USB disconnect");
        remountWanted_ = true;
    } catch (const std::exception& e) {
        log::xpc().error("[relay-probe] unmount after disconnect failed: %{public}s", e.what());
    }
}

asio::awaitable<void> RelayProbeCoordinator::doVolumeDidMount() {
    remountWanted_ = false;
    log::xpc().info("[relay-probe] volume mounted — start mounted keepalive");
    startKeepalive();
    co_return;
}

asio::awaitable<void> RelayProbeCoordinator::doVolumeDidUnmount() {
    remountWanted_ = false;
    co_await doFileSystemDidEnd();
}

asio::awaitable<void> RelayProbeCoordinator::doFileSystemDidEnd() {
    if (collaborators_.usbConnected()) {
        log::xpc().info("[relay-probe] volume unmounted — resume probe");
        startProbe();
    }
    co_return;
}

asio::awaitable<void> RelayProbeCoordinator::doStop() {
    stopped_ = true;
    endLoops();
    co_return;
}

std::uint64_t RelayProbeCoordinator::endLoops() {
    assertIsolated();
    auto wakers = std::exchange(wakers_, {});
    for (auto& [key, wake] : wakers) {
        wake();
    }
    return ++generation_;
}

void RelayProbeCoordinator::startProbe() {
    if (const auto generation = endLoops(); !stopped_) {
        spawnIsolated(shared_from_this(), &RelayProbeCoordinator::probeLoop, generation);
    }
}

void RelayProbeCoordinator::startKeepalive() {
    if (const auto generation = endLoops(); !stopped_) {
        spawnIsolated(shared_from_this(), &RelayProbeCoordinator::keepaliveLoop, generation);
    }
}

asio::awaitable<void> RelayProbeCoordinator::probeLoop(std::uint64_t generation) {
    auto& volume = *collaborators_.volume;
    while (isCurrent(generation)) {
        if (volume.isMounted()) {
            log::xpc().info("[relay-probe] volume mounted mid-loop — stop probe");
            co_return;
        }
        const bool reachable = co_await check(generation);
        if (!isCurrent(generation)) {
            co_return;
        }
        if (reachable && !relayReachable_) {
            log::xpc().info("[relay-probe] iOS relay reachable");
        } else if (!reachable && relayReachable_) {
            log::xpc().info("[relay-probe] iOS relay unreachable");
        }
        relayReachable_ = reachable;
        if (reachable && remountWanted_) {
            co_await mountAgain(generation);
        }
        co_await pause(generation, kPeriod);
    }
}

asio::awaitable<void> RelayProbeCoordinator::keepaliveLoop(std::uint64_t generation) {
    auto& clock = *collaborators_.clock;
    std::int64_t misses = 0;
    while (isCurrent(generation) && collaborators_.usbConnected() &&
           collaborators_.volume->isMounted()) {
        // Any word from the app stands in for a keepalive of our own.
        if (const auto contact = collaborators_.link->lastContact()) {
            const auto elapsed = clock.now() - *contact;
            if (elapsed < kPeriod) {
                co_await pause(generation,
                               kPeriod - std::max(elapsed, ProbeClock::Duration::zero()));
                continue;
            }
        }
        const auto asked = clock.now();
        bool answered = co_await check(generation);
        if (!isCurrent(generation)) {
            co_return;
        }
        // An app heard from meanwhile (a speed test's bytes, a push) is there, whatever
        // became of a request stuck behind that traffic.
        if (const auto contact = collaborators_.link->lastContact(); contact && *contact >= asked) {
            answered = true;
        }
        relayReachable_ = answered;
        if (answered) {
            if (misses > 0) {
                log::xpc().info("[relay-probe] mounted keepalive recovered");
                misses = 0;
            }
        } else {
            ++misses;
            log::xpc().info("[relay-probe] mounted keepalive miss %{public}ld/%{public}ld",
                            static_cast<long>(misses), static_cast<long>(kMissLimit));
            if (misses >= kMissLimit) {
                // Not retried: a failed unmount is left to the user.
                co_await forceUnmountAfterLostRelay(generation);
                co_return;
            }
        }
        co_await pause(generation, kPeriod);
    }
}

asio::awaitable<void> RelayProbeCoordinator::forceUnmountAfterLostRelay(std::uint64_t generation) {
    log::xpc().info("[relay-probe] mounted keepalive exhausted — force unmount");
    try {
        if (!collaborators_.volume->isMounted()) {
            throw MountServiceError::notMounted();
        }
        co_await collaborators_.volume->unmount(true);
        log::xpc().info("[relay-probe] force unmount after lost relay ok");
    } catch (const std::exception& e) {
        log::xpc().error("[relay-probe] force unmount after lost relay failed: %{public}s",
                         e.what());
        co_return;
    }
    remountWanted_ = true;
    // The phone is still attached: the probe watches for its app to answer again.
    if (isCurrent(generation) && collaborators_.usbConnected()) {
        startProbe();
    }
}

asio::awaitable<void> RelayProbeCoordinator::mountAgain(std::uint64_t generation) {
    remountWanted_ = false;
    log::xpc().info("[relay-probe] iOS relay back after a forced unmount — mount again");
    try {
        co_await collaborators_.volume->mount();
    } catch (const std::exception& e) {
        log::xpc().error("[relay-probe] mount after the relay came back failed: %{public}s",
                         e.what());
        co_return;
    }
    // Otherwise a USB event came meanwhile, and its loop goes on.
    if (isCurrent(generation)) {
        log::xpc().info("[relay-probe] volume mounted again — start mounted keepalive");
        startKeepalive();
    }
}

asio::awaitable<bool> RelayProbeCoordinator::check(std::uint64_t generation) {
    // A phone found gone just before sending makes a failed round.
    if (!collaborators_.usbConnected()) {
        co_return false;
    }
    auto outcome = co_await attempt(generation);
    if (outcome == Attempt::retryable) {
        // A tunnel that broke or was never bound may be a stale native tunnel (the app
        // restarted, the phone was re-plugged): one fresh connection tells.
        co_await collaborators_.link->invalidate();
        outcome = co_await attempt(generation);
    }
    if (outcome == Attempt::timedOut) {
        co_await collaborators_.link->invalidate();
    }
    co_return outcome == Attempt::answered;
}

asio::awaitable<RelayProbeCoordinator::Attempt> RelayProbeCoordinator::attempt(
    std::uint64_t generation) {
    if (!isCurrent(generation)) {
        co_return Attempt::ended;
    }
    AttemptReply reply;
    const auto key = nextWaker_++;
    wakers_.emplace(key, [reply] { reply.resume(Attempt::ended); });
    const auto& executor = collaborators_.executor;
    collaborators_.clock->deadline(executor, kPeriod, [reply] { reply.resume(Attempt::timedOut); });
    runtime::spawnTask(executor, collaborators_.link, &sendInto, reply);
    const auto outcome = co_await std::move(reply).wait();
    wakers_.erase(key);
    co_return outcome;
}

asio::awaitable<void> RelayProbeCoordinator::pause(std::uint64_t generation,
                                                   ProbeClock::Duration d) {
    if (!isCurrent(generation)) {
        co_return;
    }
    runtime::OnceReply<void> wake;
    const auto key = nextWaker_++;
    wakers_.emplace(key, [wake] { wake.resume(); });
    runtime::spawnTask(collaborators_.executor, collaborators_.clock, &sleepInto, d, wake);
    co_await std::move(wake).wait();
    wakers_.erase(key);
}

}  // namespace skiff::mount
