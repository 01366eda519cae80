#include "ctl/notification_line.hpp"

#include "common/base64.hpp"
#include "common/bridge_messages.hpp"

namespace skiff::ctl {

namespace {

std::string lineOf(const json::Json& line) {
    // Replacement keeps the line printable even when a string in it is not UTF-8.
    return line.dump(-1, ' ', false, json::Json::error_handler_t::replace);
}

}  // namespace

std::string roleName(std::int64_t role) {
    using service::HarborBridgeClientRole;
    switch (service::clientRoleFromRaw(role).value_or(HarborBridgeClientRole{-1})) {
        case HarborBridgeClientRole::fileProvider:
            return "fileprovider";
        case HarborBridgeClientRole::desktopApp:
            return "desktop";
        case HarborBridgeClientRole::usbMux:
            return "usbmux";
    }
    return "role " + std::to_string(role);
}

std::string_view notificationName(std::int64_t message) {
    using service::BridgeNotifyMessage;
    const auto known = service::notifyMessageFromRaw(message);
    if (!known) {
        return "unknown";
    }
    switch (*known) {
        case BridgeNotifyMessage::bridgeStateChanged:
            return "bridgeStateChanged";
        case BridgeNotifyMessage::fileIOProgress:
            return "fileIOProgress";
        case BridgeNotifyMessage::mountControl:
            return "mountControl";
        case BridgeNotifyMessage::itemMutation:
            return "itemMutation";
    }
    return "unknown";
}

json::Json embeddedBody(const Bytes& body) {
    if (auto document = json::parse(body)) {
        return std::move(*document);
    }
    return base64::encode(body);
}

std::string notificationLine(std::int64_t message, const Bytes& param) {
    json::Json line = json::Json::object();
    line["message"] = message;
    line["name"] = std::string(notificationName(message));
    line["payload"] = embeddedBody(param);
    return lineOf(line);
}

std::string deviceLine(const std::string& udid, bool attached) {
    json::Json line = json::Json::object();
    line["event"] = "device";
    line["udid"] = udid;
    line["attached"] = attached;
    return lineOf(line);
}

std::string roleLine(std::int64_t role, const std::string& holder, const std::string& replaced) {
    json::Json line = json::Json::object();
    line["event"] = "role";
    line["role"] = roleName(role);
    line["holder"] = holder;
    if (!replaced.empty()) {
        line["replaced"] = replaced;
    }
    return lineOf(line);
}

std::string noticeLine(const std::string& text) {
    json::Json line = json::Json::object();
    line["event"] = "volume";
    line["notice"] = text;
    return lineOf(line);
}

std::string serviceLine(bool running) {
    json::Json line = json::Json::object();
    line["event"] = "service";
    line["running"] = running;
    return lineOf(line);
}

}  // namespace skiff::ctl
