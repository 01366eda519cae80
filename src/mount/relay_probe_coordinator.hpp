#pragma once
// Watches whether the companion app answers over the relay, and protects the mounted volume
// when it stops. Unmounted, a probe logs each change between reachable and unreachable;
// mounted, a keepalive counts consecutive misses and forces an unmount after the third.
// USB events and the volume's mounts and unmounts switch between the two loops.
//
// An actor: its state lives on its strand, and each loop is a task on it that re-enters
// after every wait. Starting a loop (or losing USB) ends the one before: a loop carries
// the generation it was started with and stops once it is no longer the current one.
// Every check has a deadline of one period; past it the app counts as silent and the relay
// tunnel is dropped, so relays stuck behind it fail instead of waiting forever.
//
// Public methods may be called from any thread and return at once. Made by
// std::make_shared; the loops hold it while they run, until stop().

#include <asio.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

#include "common/actor.hpp"
#include "mount/probe_link.hpp"
#include "mount/volume.hpp"

namespace skiff::mount {

struct ProbeCollaborators {
    asio::any_io_executor executor;
    std::shared_ptr<Volume> volume;
    // Whether the bridge core holds a USB-mux connection; called on the probe's strand.
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
    // Ends the running loop for good (process teardown).
    void stop();

private:
    enum class Attempt { answered, failed, retryable, timedOut };

    asio::awaitable<void> doUsbDidConnect();
    asio::awaitable<void> doUsbDidDisconnect();
    asio::awaitable<void> doVolumeDidMount();
    asio::awaitable<void> doVolumeDidUnmount();
    asio::awaitable<void> doStop();

    void startProbe();
    void startKeepalive();
    bool isCurrent(std::uint64_t generation) const { return generation == generation_; }
    asio::awaitable<void> probeLoop(std::uint64_t generation);
    asio::awaitable<void> keepaliveLoop(std::uint64_t generation);
    asio::awaitable<void> forceUnmountAfterLostRelay();

    // One round: a request, and a second one after dropping the tunnel when the first
    // failed in a way a fresh connection may cure. True when the app answered; false at
    // once without a phone.
    asio::awaitable<bool> check();
    // One request raced against the deadline.
    asio::awaitable<Attempt> attempt();

    ProbeCollaborators collaborators_;

    // Strand state.
    std::uint64_t generation_ = 0;
    bool relayReachable_ = false;
    bool stopped_ = false;
};

}  // namespace skiff::mount
