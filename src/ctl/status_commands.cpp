#include "ctl/status_commands.hpp"

#include <chrono>
#include <iostream>
#include <variant>

#include "common/json.hpp"
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

std::string volumeLine(const VolumeStatus& volume) {
    switch (volume.state) {
        case mount::VolumeState::mounted:
            return "mounted at " + volume.mountPoint;
        case mount::VolumeState::broken:
            return "broken at " + volume.mountPoint +
                   " (it no longer answers; skiffctl unmount --force clears it)";
        case mount::VolumeState::notMounted:
            break;
    }
    return "not mounted";
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
        {"volume", volumeLine(volume)},
        {"waiting to reach the phone",
         std::to_string(volume.pendingWrites) + (volume.pendingWrites == 1 ? " file" : " files")},
    };
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
