#pragma once
// Watches whether the companion app answers over the relay, and protects the mounted volume
// when it stops. Unmounted, a probe logs each change between reachable and unreachable;
// mounted, a keepalive counts consecutive misses and forces an unmount after the third.
// USB events and the volume's mounts and unmounts switch between the two loops. A volume
// forced off because the phone was lost (gone from USB, or its app silent) is mounted
// again once the probe finds the app answering; an unmount anyone else made (a user's, the
// phone's) is left as it is.
//
// An actor: its state lives on its strand, and each loop is a task on it that re-enters
// after every wait. Starting a loop (or losing USB, or stop()) ends the one before at
// once: a loop carries the generation it was started with, and a new generation wakes
// every wait of the old one (a sleep, a request), so a stop never waits for the next tick.
// Every check has a deadline of one period; past it the app counts as silent and the relay
// tunnel is dropped, so relays stuck behind it fail instead of waiting forever.
//
// Public methods may be called from any thread and return at once. Made by
// std::make_shared; the loops hold it while they run, until stop().

#include <asio.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>

#include "common/actor.hpp"
#include "mount/probe_link.hpp"
#include "mount/volume.hpp"

namespace skiff::mount {

struct ProbeCollaborators {
    asio::any_io_executor executor;
    std::shared_ptr<Volume> volume;
    // Whether a phone is attached over USB; called on the probe's strand.
    std::function<bool()> usbConnected;
    std::shared_ptr<ProbeLink> link;
    std::shared_ptr<ProbeClock> clock;  // null: real time
};

class RelayProbeCoordinator : public VolumeListener,
                              public runtime::Actor,
                              public std::enable_shared_from_this<RelayProbeCoordinator> {
public:
    static constexpr std::chrono::seconds kPeriod{3};
    static constexpr std::int64_t kMissLimit = 3;

    explicit RelayProbeCoordinator(ProbeCollaborators collaborators);
    RelayProbeCoordinator(const RelayProbeCoordinator&) = delete;
    RelayProbeCoordinator& operator=(const RelayProbeCoordinator&) = delete;

    // A phone is there: keepalive when the volume is mounted, else the probe.
    void usbDidConnect();
    // The last phone left: the loop ends, and a mounted volume is forced off.
    void usbDidDisconnect();
    void volumeDidMount() override;
    void volumeDidUnmount() override;
    void fileSystemDidEnd() override;
    // Ends the running loop for good (process teardown).
    void stop();

    // The outcome of one request; ended: the loop that asked was ended meanwhile.
    enum class Attempt { answered, failed, retryable, timedOut, ended };

private:
    asio::awaitable<void> doUsbDidConnect();
    asio::awaitable<void> doUsbDidDisconnect();
    asio::awaitable<void> doVolumeDidMount();
    asio::awaitable<void> doVolumeDidUnmount();
    asio::awaitable<void> doFileSystemDidEnd();
    asio::awaitable<void> doStop();

    void startProbe();
    void startKeepalive();
    // A new generation: the running loop ends, and every wait of its is woken.
    std::uint64_t endLoops();
    bool isCurrent(std::uint64_t generation) const { return generation == generation_; }
    asio::awaitable<void> probeLoop(std::uint64_t generation);
    asio::awaitable<void> keepaliveLoop(std::uint64_t generation);
    asio::awaitable<void> forceUnmountAfterLostRelay(std::uint64_t generation);
    // The app answers again after a forced unmount: mounts, and the keepalive takes over.
    asio::awaitable<void> mountAgain(std::uint64_t generation);

    // One round: a request, and a second one after dropping the tunnel when the first
    // failed in a way a fresh connection may cure. True when the app answered; false at
    // once without a phone or once the loop has ended.
    asio::awaitable<bool> check(std::uint64_t generation);
    // One request raced against the deadline and the loop's end.
    asio::awaitable<Attempt> attempt(std::uint64_t generation);
    // Sleeps for d, or less when the loop ends first.
    asio::awaitable<void> pause(std::uint64_t generation, ProbeClock::Duration d);

    ProbeCollaborators collaborators_;

    // Strand state.
    std::uint64_t generation_ = 0;
    // What wakes each pending wait early, by a key of its own.
    std::map<std::uint64_t, std::function<void()>> wakers_;
    std::uint64_t nextWaker_ = 0;
    bool relayReachable_ = false;
    // The volume was forced off by this probe and nobody has mounted or unmounted since.
    bool remountWanted_ = false;
    bool stopped_ = false;
};

}  // namespace skiff::mount
