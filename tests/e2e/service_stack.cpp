#include "e2e/service_stack.hpp"

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "common/json.hpp"
#include "relay/relay_schema.hpp"
#include "service/dbus/answering_client.hpp"

namespace skiff::test {

void NotificationRecorder::record(std::int64_t message, Bytes param) {
    std::lock_guard guard(mutex_);
    notifications_.push_back({message, std::move(param)});
    changed_.notify_all();
}

std::size_t NotificationRecorder::count() const {
    std::lock_guard guard(mutex_);
    return notifications_.size();
}

std::vector<NotificationRecorder::Notification> NotificationRecorder::notifications() const {
    std::lock_guard guard(mutex_);
    return notifications_;
}

bool NotificationRecorder::waitForState(BridgeState state, std::size_t from,
                                        std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] {
        for (std::size_t i = from; i < notifications_.size(); ++i) {
            const auto& n = notifications_[i];
            const auto payload = json::parse(n.param);
            if (n.message == 0 && payload && payload->is_object() &&
                payload->value("source", std::int64_t{-1}) == state.source &&
                payload->value("connected", !state.connected) == state.connected) {
                return true;
            }
        }
        return false;
    });
}

ServiceStack::ServiceStack(std::function<void(const std::string&)> prepareStorage,
                           std::vector<std::string> skiffdArgs, std::string skiffd,
                           std::vector<std::string> phoneArgs)
    : storage_("skiff-e2e-storage"), data_("skiff-e2e-data") {
    if (prepareStorage) {
        prepareStorage(storage_.path());
    }
    phoneArgs.insert(phoneArgs.end(), {"--storage", storage()});
    phone_ =
        std::make_unique<SimulatedPhone>(std::vector<std::string>{kDevice}, std::move(phoneArgs));
    skiffdArgs.insert(skiffdArgs.begin(),
                      skiffd.empty() ? buildPath("src/service/skiffd") : std::move(skiffd));
    skiffdArgs_ = std::move(skiffdArgs);
    startService();
}

void ServiceStack::restartService() {
    skiffd_->stop();
    startService();
}

void ServiceStack::startService() {
    skiffd_ = std::make_unique<ChildProcess>(skiffdArgs_, environment());

    // The service is ready once it answers on its bus name; until then the bus itself
    // answers at once that nobody owns it.
    auto probe = connect();
    probe->setCallTimeout(std::chrono::seconds(5));
    const auto deadline = std::chrono::steady_clock::now() + kE2eWait;
    for (;;) {
        try {
            probe->getXPCServiceVersion();
            return;
        } catch (const service::dbus::BusError& e) {
            if (std::chrono::steady_clock::now() > deadline || skiffd_->waitForExit({})) {
                throw std::runtime_error("skiffd did not come up (" + e.name() + "):\n" +
                                         skiffd_->output());
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

ServiceStack::~ServiceStack() {
    // The service first, so that it does not watch the phone go away.
    skiffd_.reset();
    phone_.reset();
}

std::unique_ptr<service::dbus::HarborClient> ServiceStack::connect(
    std::shared_ptr<service::HarborBridgeClientProtocol> exported) {
    return std::make_unique<service::dbus::HarborClient>(std::move(exported), busAddress());
}

std::vector<std::string> ServiceStack::environment() const {
    return {"DBUS_SESSION_BUS_ADDRESS=" + busAddress(), phone_->muxEnvironment(),
            "SKIFF_LOG=stderr", "XDG_DATA_HOME=" + data_.path()};
}

std::string ServiceStack::container() const {
    return data_.path() + "/Harbor/group.Mox.Harbor";
}

Bytes lookupBody(const std::string& identifier) {
    return json::encode(
               relay::RelayLookupRequest{identifier, relay::RelayLookupSource::fsLookupByName})
        .value();
}

void writeNotes(const std::string& storage) {
    std::filesystem::create_directories(storage + "/Documents");
    std::ofstream(storage + "/Documents/notes.txt") << "twelve bytes";
}

RegisteredClient registerRecorded(ServiceStack& stack, std::int64_t role) {
    RegisteredClient registered;
    registered.recorder = std::make_shared<NotificationRecorder>();
    registered.client = stack.connect(std::make_shared<service::dbus::AnsweringClient>(
        [recorder = registered.recorder](std::int64_t message, Bytes param) {
            recorder->record(message, std::move(param));
        }));
    if (!registered.client->registerClient(role)) {
        throw std::runtime_error("the service refused the registration");
    }
    return registered;
}

RegisteredClient registerWithPhone(ServiceStack& stack, std::int64_t role) {
    auto registered = registerRecorded(stack, role);
    if (!registered.recorder->waitForState({2, true})) {
        std::string seen;
        for (const auto& n : registered.recorder->notifications()) {
            seen += std::to_string(n.message) + " " + std::string(n.param.begin(), n.param.end()) +
                    "\n";
        }
        throw std::runtime_error("the service never said that the phone is attached; it said:\n" +
                                 seen + "its log:\n" + stack.service().output() +
                                 "the phone's log:\n" + stack.phone().process().output());
    }
    return registered;
}

}  // namespace skiff::test
