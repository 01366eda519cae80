#include "ctl/relay_text.hpp"

#include <array>
#include <cstdio>
#include <ctime>

#include "common/base64.hpp"
#include "common/json.hpp"

namespace skiff::ctl {

namespace {

constexpr std::array<std::string_view, 13> kRelayStatusNames = {
    "ok",           "notConnected", "invalidRequest",  "transportFailed",     "timedOut",
    "encodeFailed", "decodeFailed", "payloadTooLarge", "unsupportedSelector", "deviceStatus",
    "busy",         "cancelled",    "internalError"};

constexpr std::array<std::string_view, 10> kDeviceStatusNames = {
    "ok",      "notFound",        "permissionDenied", "alreadyExists", "invalidArgument",
    "ioError", "versionConflict", "notDirectory",     "isDirectory",   "noSpace"};

template <std::size_t N>
std::string_view nameAt(const std::array<std::string_view, N>& names, std::int64_t raw) {
    if (raw < 0 || static_cast<std::uint64_t>(raw) >= N) {
        return "unknown";
    }
    return names[static_cast<std::size_t>(raw)];
}

std::string versionText(const std::optional<Bytes>& version) {
    return version ? base64::encode(*version) : std::string("(none)");
}

// Text without control characters (other than line breaks and tabs) and valid UTF-8,
// which the JSON serializer checks.
bool isPrintableText(const Bytes& body) {
    for (const auto c : body) {
        if ((c < 0x20 && c != '\n' && c != '\t' && c != '\r') || c == 0x7F) {
            return false;
        }
    }
    return json::serialize(json::Json(std::string(body.begin(), body.end()))).has_value();
}

using relay::RelayDeviceStatus;
using relay::UsbMuxRelaySelector;

// The app's refusal as a person reads it; alreadyExists on a removal or a rename is the
// directory that still holds items.
std::string deviceWords(std::int64_t code, UsbMuxRelaySelector selector) {
    switch (json::enumFromRaw<RelayDeviceStatus>(code).value_or(RelayDeviceStatus::ioError)) {
        case RelayDeviceStatus::notFound:
            return selector == UsbMuxRelaySelector::listDirectory ? "no such folder on the phone"
                                                                  : "not found on the phone";
        case RelayDeviceStatus::permissionDenied:
            return "permission denied on the phone";
        case RelayDeviceStatus::alreadyExists:
            return selector == UsbMuxRelaySelector::makeDirectory ? "already exists on the phone"
                                                                  : "directory not empty";
        case RelayDeviceStatus::invalidArgument:
            return "not a valid identifier (a path without leading or trailing \"/\", \".\" or "
                   "\"..\"; \"\" is the top)";
        case RelayDeviceStatus::versionConflict:
            return "changed on the phone meanwhile";
        case RelayDeviceStatus::notDirectory:
            return "that is not a folder";
        case RelayDeviceStatus::isDirectory:
            return "that is a folder";
        case RelayDeviceStatus::noSpace:
            return "no space left on the phone";
        case RelayDeviceStatus::ok:
        case RelayDeviceStatus::ioError:
            break;
    }
    return "input/output error on the phone (code " + std::to_string(code) + ")";
}

}  // namespace

std::string relayFailureWords(std::int64_t status, std::int64_t code,
                              UsbMuxRelaySelector selector) {
    using relay::UsbMuxRelayError;
    switch (json::enumFromRaw<UsbMuxRelayError>(status).value_or(UsbMuxRelayError::internalError)) {
        case UsbMuxRelayError::notConnected:
            return "the service relays only for a registered client (--role desktop)";
        case UsbMuxRelayError::transportFailed:
            // The service answers this before trying when no phone is attached; the tunnel's
            // own failures are the app not answering.
            return code == kNoPhone ? "no phone is attached" : "the phone's app did not answer";
        case UsbMuxRelayError::timedOut:
            return "the phone's app did not answer in time";
        case UsbMuxRelayError::payloadTooLarge:
            return "the request is larger than the 5 MiB a relay carries";
        case UsbMuxRelayError::unsupportedSelector:
            return "the phone's app does not know this request";
        case UsbMuxRelayError::deviceStatus:
            return deviceWords(code, selector);
        case UsbMuxRelayError::busy:
            return "the phone's app is busy; try again";
        default:
            break;
    }
    return "the request failed (" + std::string(relayStatusName(status)) + ")";
}

std::string_view relayStatusName(std::int64_t status) {
    return nameAt(kRelayStatusNames, status);
}

std::string_view deviceStatusName(std::int64_t code) {
    return nameAt(kDeviceStatusNames, code);
}

std::string describeRelayOutcome(std::int64_t status, std::int64_t detail) {
    std::string text =
        "status " + std::to_string(status) + " (" + std::string(relayStatusName(status)) + ")";
    if (status == static_cast<std::int64_t>(relay::UsbMuxRelayError::deviceStatus)) {
        text += ", detail " + std::to_string(detail) + " (" +
                std::string(deviceStatusName(detail)) + ")";
    } else if (detail != 0) {
        text += ", detail " + std::to_string(detail);
    }
    return text;
}

std::string formatTime(const relay::RelayTimespec& time) {
    const std::time_t seconds = static_cast<std::time_t>(time.tvSec);
    std::tm parts{};
    char date[64] = "?";
    if (gmtime_r(&seconds, &parts) != nullptr) {
        std::strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &parts);
    }
    char text[96];
    std::snprintf(text, sizeof text, "%s.%09d UTC", date, static_cast<int>(time.tvNsec));
    return text;
}

std::string describeSummary(const relay::RelayItemSummary& s) {
    char mode[16];
    std::snprintf(mode, sizeof mode, "%06o", s.mode);
    std::string text;
    auto line = [&](std::string_view key, const std::string& value) {
        text.append(key).append(": ").append(value).append("\n");
    };
    line("identifier", "\"" + s.identifier + "\"");
    line("filename", "\"" + s.filename + "\"");
    line("type", s.isDirectory ? "directory" : "file");
    line("size", std::to_string(s.size) + " bytes (" + std::to_string(s.allocSize) + " allocated)");
    line("inode", std::to_string(s.inode));
    line("mode", mode);
    line("owner", "uid " + std::to_string(s.uid) + ", gid " + std::to_string(s.gid));
    line("flags", std::to_string(s.flags));
    line("links", std::to_string(s.linkCount));
    line("accessed", formatTime(s.accessTime));
    line("modified", formatTime(s.modifyTime));
    line("changed", formatTime(s.changeTime));
    line("created", formatTime(s.birthTime));
    line("content version", versionText(s.contentVersion));
    line("metadata version", versionText(s.metadataVersion));
    return text;
}

std::string printableBody(const Bytes& body) {
    if (isPrintableText(body)) {
        return std::string(body.begin(), body.end());
    }
    return base64::encode(body);
}

}  // namespace skiff::ctl
