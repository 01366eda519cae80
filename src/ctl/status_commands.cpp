#include "ctl/status_commands.hpp"

#include <chrono>
#include <iostream>
#include <variant>

#include "common/json.hpp"
#include "ctl/relay_text.hpp"
#include "volume/pending_store.hpp"

namespace skiff::ctl {

namespace {

void printJson(const json::Json& document) {
    std::cout << document.dump(-1, ' ', false, json::Json::error_handler_t::replace) << std::endl;
}

// The service's status, or the exit status after saying why there is none. A service that
// is not running is not asked: the call would start it through bus activation.
std::variant<service::ServiceStatus, int> askStatus(CtlSession& session) {
    if (!session.client().serviceRunning()) {
        std::cerr << "skiffctl: skiffd is not running" << std::endl;
        return kExitUnreachable;
    }
    auto status = json::decode<service::ServiceStatus>(session.client().getStatus());
    if (!status) {
        std::cerr << "skiffctl: the service's status does not decode" << std::endl;
        return kExitFailed;
    }
    return std::move(*status);
}

// A healthy volume answers a stat at once; a loaded machine gets a generous margin.
constexpr auto kVolumeAnswerWithin = std::chrono::seconds(2);

// A volume whose skiff-fs is still there is only waiting: for the phone, its app, or the
// file-provider role back. Only one whose skiff-fs is gone is broken.
std::string volumeLine(const service::ServiceStatus& status, const VolumeStatus& volume) {
    const std::string at = " at " + volume.mountPoint;
    if (volume.state == mount::VolumeState::notMounted) {
        return "not mounted";
    }
    if (status.fileProviderReplaced.value_or(false)) {
        return "mounted" + at +
               ", cut off: another client holds the file-provider role until it exits";
    }
    if (!status.fileProviderRegistered) {
        return "broken" + at + " (skiff-fs is gone; skiffctl unmount --force clears it)";
    }
    if (status.attachedDevices.empty()) {
        return "mounted" + at + ", waiting for the phone";
    }
    if (volume.state == mount::VolumeState::broken) {
        return "mounted" + at + ", waiting for the phone's app to answer";
    }
    return "mounted" + at;
}

}  // namespace

VolumeStatus localVolumeStatus() {
    const auto path = mount::defaultMountPoint();
    if (!path) {
        return {};
    }
    const auto folder = volume::defaultVolumeFolder();
    return {mount::volumeStateAt("/proc/self/mountinfo", *path, kVolumeAnswerWithin),
            path->string(), folder ? volume::PendingStore::countIn(*folder) : 0};
}

std::vector<std::pair<std::string, std::string>> statusLines(const service::ServiceStatus& status,
                                                             const VolumeStatus& volume) {
    std::string phones;
    for (const auto& udid : status.attachedDevices) {
        phones += (phones.empty() ? "" : ", ") + udid;
    }
    return {
        {"service", "running, build " + std::to_string(status.version)},
        {"phone", phones.empty() ? "none attached" : "attached (" + phones + ")"},
        {"file provider", status.fileProviderRegistered ? "registered" : "not registered"},
        {"volume", volumeLine(status, volume)},
        {"waiting to reach the phone",
         std::to_string(volume.pendingWrites) + (volume.pendingWrites == 1 ? " file" : " files")},
    };
}

std::int64_t failureCode(CtlSession& session,
                         const service::dbus::HarborClient::RelayReply& reply) {
    if (reply.status != static_cast<std::int64_t>(relay::UsbMuxRelayError::transportFailed)) {
        return reply.code;
    }
    const auto status = json::decode<service::ServiceStatus>(session.client().getStatus());
    return status && status->attachedDevices.empty() ? kNoPhone : reply.code;
}

void warnBeforeTakingFileProvider(CtlSession& session) {
    const auto status = json::decode<service::ServiceStatus>(session.client().getStatus());
    if (status && status->fileProviderRegistered) {
        std::cerr << "skiffctl: warning: taking the file-provider role cuts off the mounted "
                     "volume until skiffctl exits"
                  << std::endl;
    }
}

int runDevices(CtlSession& session, const Output& out) {
    const auto answer = askStatus(session);
    const auto* status = std::get_if<service::ServiceStatus>(&answer);
    if (status == nullptr) {
        return std::get<int>(answer);
    }
    if (out.json) {
        printJson({{"devices", status->attachedDevices}});
    } else {
        for (const auto& udid : status->attachedDevices) {
            std::cout << udid << std::endl;
        }
    }
    return kExitOk;
}

int runStatus(CtlSession& session, const Output& out) {
    const auto answer = askStatus(session);
    const auto* status = std::get_if<service::ServiceStatus>(&answer);
    if (status == nullptr) {
        if (out.json) {
            printJson({{"running", false}});
        }
        return std::get<int>(answer);
    }
    const auto volume = localVolumeStatus();
    if (out.json) {
        auto document = json::toJson(*status);
        document["running"] = true;
        document["volume"] = json::enumText(volume.state);
        document["mountPoint"] = volume.mountPoint;
        document["pendingWrites"] = volume.pendingWrites;
        printJson(document);
        return kExitOk;
    }
    for (const auto& [name, value] : statusLines(*status, volume)) {
        std::cout << name << ": " << value << std::endl;
    }
    return kExitOk;
}

}  // namespace skiff::ctl
