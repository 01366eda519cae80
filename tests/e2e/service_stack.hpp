#pragma once
// The whole chain for end-to-end tests and benchmarks: a private bus, the simulated phone
// with one device and a storage folder, and skiffd between them. Every process is stopped
// when the stack goes away.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "common/bridge_protocols.hpp"
#include "dbus/support/test_bus.hpp"
#include "service/dbus/harbor_client.hpp"
#include "support/child_process.hpp"
#include "support/simulated_phone.hpp"

namespace skiff::test {

inline constexpr auto kE2eWait = std::chrono::seconds(30);

struct BridgeState {
    std::int64_t source = 0;
    bool connected = false;
};

// Records the notifications a client receives (the sink of its client object).
class NotificationRecorder {
public:
    struct Notification {
        std::int64_t message = 0;
        Bytes param;
    };

    void record(std::int64_t message, Bytes param);

    std::size_t count() const;
    std::vector<Notification> notifications() const;
    // Waits for a bridgeStateChanged with this payload among the notifications from
    // index `from` on; false after `timeout`.
    bool waitForState(BridgeState state, std::size_t from = 0,
                      std::chrono::milliseconds timeout = kE2eWait);

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Notification> notifications_;
};

class ServiceStack {
public:
    static constexpr const char* kDevice = "SIM-E2E-0001";

    // Fills the app's storage through `prepareStorage` before the phone starts; skiffd
    // (the built one unless `skiffd` names another) gets `skiffdArgs`, the phone `phoneArgs`.
    explicit ServiceStack(std::function<void(const std::string& storage)> prepareStorage = {},
                          std::vector<std::string> skiffdArgs = {}, std::string skiffd = {},
                          std::vector<std::string> phoneArgs = {});
    ~ServiceStack();
    ServiceStack(const ServiceStack&) = delete;
    ServiceStack& operator=(const ServiceStack&) = delete;

    const std::string& busAddress() const { return bus_.address(); }
    testing::TestBus& bus() { return bus_; }
    const std::string& storage() const { return storage_.path(); }
    // The shared transfer folder of skiffd and the clients started with environment().
    std::string container() const;
    SimulatedPhone& phone() { return *phone_; }
    ChildProcess& service() { return *skiffd_; }
    // Stops skiffd, if it still runs, and starts a new one; returns once it answers.
    void restartService();

    // A client on the stack's bus serving `exported` (when given).
    std::unique_ptr<service::dbus::HarborClient> connect(
        std::shared_ptr<service::HarborBridgeClientProtocol> exported = nullptr);

    // What a child process needs to reach this bus and this phone.
    std::vector<std::string> environment() const;

private:
    void startService();

    testing::TestBus bus_;
    TempDir storage_;
    TempDir data_;  // XDG_DATA_HOME, so that transfers stay out of the user's own folder
    std::unique_ptr<SimulatedPhone> phone_;
    std::unique_ptr<ChildProcess> skiffd_;
    std::vector<std::string> skiffdArgs_;
};

// The body of a by-name look-up (relay code 2) of `identifier`.
Bytes lookupBody(const std::string& identifier);

// Storage for the stack: Documents/notes.txt holding "twelve bytes".
void writeNotes(const std::string& storage);

// A client registered under `role` whose notifications are recorded.
struct RegisteredClient {
    std::shared_ptr<NotificationRecorder> recorder;
    std::unique_ptr<service::dbus::HarborClient> client;
};
RegisteredClient registerRecorded(ServiceStack& stack, std::int64_t role);
// The same, once the service has told it that the phone is attached, so that relays can start.
RegisteredClient registerWithPhone(ServiceStack& stack, std::int64_t role);

}  // namespace skiff::test
