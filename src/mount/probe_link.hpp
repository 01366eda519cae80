#pragma once
// What the relay probe needs of the relay and of time. BridgeProbeLink and SteadyProbeClock
// are the real ones; tests script the app's answers and move time by hand.

#include <asio.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "relay/tunnel_relay_bridge.hpp"

namespace skiff::mount {

// The relay to the companion app. Called from the probe's strand; implementations may
// suspend but must not block.
class ProbeLink {
public:
    using TimePoint = std::chrono::system_clock::time_point;
    virtual ~ProbeLink() = default;

    // One request with code 0 and an empty body to the app's port; the relay status
    // (UsbMuxRelayError raw value). Sets the last-contact time when the app answers.
    virtual asio::awaitable<std::int64_t> sendProbe() = 0;
    // When the app was last heard from (an answer or a push), if ever.
    virtual std::optional<TimePoint> lastContact() const = 0;
    // Drops the relay tunnel: every waiting relay fails with status 3 (transport failed)
    // and the next one connects anew.
    virtual asio::awaitable<void> invalidate() = 0;
};

// Over the process's relay bridge. The app may also be heard outside the relay (a speed
// test's bytes): otherContact, when given, tells when, from any thread.
class BridgeProbeLink : public ProbeLink {
public:
    using ContactSource = std::function<std::optional<TimePoint>()>;
    explicit BridgeProbeLink(std::shared_ptr<relay::TunnelRelayBridge> bridge,
                             ContactSource otherContact = {});

    asio::awaitable<std::int64_t> sendProbe() override;
    std::optional<TimePoint> lastContact() const override;
    asio::awaitable<void> invalidate() override;

private:
    std::shared_ptr<relay::TunnelRelayBridge> bridge_;
    ContactSource otherContact_;
};

// Time as the probe sees it. now() is on the relay bridge's contact clock, so the two can
// be compared.
class ProbeClock {
public:
    using TimePoint = ProbeLink::TimePoint;
    using Duration = std::chrono::nanoseconds;
    virtual ~ProbeClock() = default;

    virtual TimePoint now() const = 0;
    // Resumes the caller on its own executor after d.
    virtual asio::awaitable<void> sleep(Duration d) = 0;
    // Calls expired once after d, from a thread of executor. Registered before it returns,
    // so nothing the caller starts afterwards can overtake it.
    virtual void deadline(asio::any_io_executor executor, Duration d,
                          std::function<void()> expired) = 0;
};

class SteadyProbeClock : public ProbeClock {
public:
    TimePoint now() const override;
    asio::awaitable<void> sleep(Duration d) override;
    void deadline(asio::any_io_executor executor, Duration d,
                  std::function<void()> expired) override;
};

}  // namespace skiff::mount
