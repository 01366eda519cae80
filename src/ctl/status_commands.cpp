#include "ctl/status_commands.hpp"

#include <iostream>
#include <variant>

#include "common/json.hpp"

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

}  // namespace

std::vector<std::pair<std::string, std::string>> statusLines(const service::ServiceStatus& status) {
    std::string phones;
    for (const auto& udid : status.attachedDevices) {
        phones += (phones.empty() ? "" : ", ") + udid;
    }
    return {
        {"service", "running, build " + std::to_string(status.version)},
        {"phone", phones.empty() ? "none attached" : "attached (" + phones + ")"},
        {"file provider", status.fileProviderRegistered ? "registered" : "not registered"},
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
    if (out.json) {
        auto document = json::toJson(*status);
        document["running"] = true;
        printJson(document);
        return kExitOk;
    }
    for (const auto& [name, value] : statusLines(*status)) {
        std::cout << name << ": " << value << std::endl;
    }
    return kExitOk;
}

}  // namespace skiff::ctl
