#include "ctl/transfer_report.hpp"

#include <array>
#include <cstdio>

#include "common/json.hpp"

namespace skiff::ctl {

namespace {

constexpr std::array<std::string_view, 9> kStatusNames = {
    "ok",          "notRegistered",   "deviceRejected", "decodeFailed",
    "noDevice",    "transportFailed", "storageFailed",  "invalidDeviceReply",
    "encodeFailed"};

constexpr std::array<std::string_view, 9> kStatusTexts = {
    "done",
    "skiffctl is not registered with the service",
    "the phone refused",
    "the service could not read skiffctl's request",
    "no phone is attached",
    "the phone's app did not answer",
    "the service could not use the shared transfer folder",
    "the phone app answered something unexpected",
    "the name cannot be sent to the phone"};

constexpr int kBarWidth = 30;

std::string formatted(const char* pattern, double value) {
    char text[64];
    std::snprintf(text, sizeof text, pattern, value);
    return text;
}

double mib(std::uint64_t bytes) {
    return static_cast<double>(bytes) / (1024.0 * 1024.0);
}

void printJson(std::ostream& out, const json::Json& document) {
    out << document.dump(-1, ' ', false, json::Json::error_handler_t::replace) << std::endl;
}

}  // namespace

std::string_view fileIOStatusName(std::int64_t status) {
    if (status < 0 || static_cast<std::size_t>(status) >= kStatusNames.size()) {
        return "unknown";
    }
    return kStatusNames[static_cast<std::size_t>(status)];
}

std::string fileIOStatusText(std::int64_t status) {
    if (status < 0 || static_cast<std::size_t>(status) >= kStatusTexts.size()) {
        return "the service answered with status " + std::to_string(status);
    }
    return std::string(kStatusTexts[static_cast<std::size_t>(status)]);
}

TransferReport::TransferReport(std::ostream& out, ReportStyle style, std::string operation,
                               std::string identifier, std::string path)
    : out_(out),
      style_(style),
      operation_(std::move(operation)),
      identifier_(std::move(identifier)),
      path_(std::move(path)) {}

void TransferReport::progress(const service::FileIOProgressPayload& step) {
    // The service reports each step of ten it passed, all at once for a chunk that spans
    // several: people see the percent of the bytes shown, once.
    const int percent = step.totalBytes == 0
                            ? 100
                            : static_cast<int>(std::min<std::uint64_t>(
                                  step.completedBytes * 100 / step.totalBytes, 100));
    if (style_ != ReportStyle::json && percent == shownPercent_) {
        return;
    }
    shownPercent_ = percent;
    switch (style_) {
        case ReportStyle::json:
            printJson(out_, {{"event", "progress"},
                             {"operation", operation_},
                             {"percent", step.percent},
                             {"completedBytes", step.completedBytes},
                             {"totalBytes", step.totalBytes}});
            return;
        case ReportStyle::lines:
            out_ << operation_ << " " << identifier_ << ": " << percent << "% ("
                 << step.completedBytes << " of " << step.totalBytes << " bytes)" << std::endl;
            return;
        case ReportStyle::bar: {
            const int filled = percent * kBarWidth / 100;
            out_ << "\r[" << std::string(static_cast<std::size_t>(filled), '#')
                 << std::string(static_cast<std::size_t>(kBarWidth - filled), '.') << "] "
                 << formatted("%3.0f", percent) << "%  "
                 << formatted("%.1f", mib(step.completedBytes)) << " of "
                 << formatted("%.1f", mib(step.totalBytes)) << " MiB" << std::flush;
            barDrawn_ = true;
            return;
        }
    }
}

void TransferReport::finished(std::uint64_t bytes, double seconds) {
    const double rate = seconds > 0 ? mib(bytes) / seconds : 0;
    if (style_ == ReportStyle::json) {
        printJson(out_, {{"event", "done"},
                         {"operation", operation_},
                         {"identifier", identifier_},
                         {"path", path_},
                         {"bytes", bytes},
                         {"seconds", seconds},
                         {"mibPerSecond", rate}});
        return;
    }
    endBarLine();
    const bool pull = operation_ == "pull";
    out_ << operation_ << " " << (pull ? identifier_ : path_) << " -> "
         << (pull ? path_ : identifier_) << ": " << bytes << " bytes in "
         << formatted("%.3f", seconds) << " s (" << formatted("%.2f", rate) << " MiB/s)"
         << std::endl;
}

void TransferReport::failed(std::optional<std::int64_t> status, const std::string& message) {
    if (style_ == ReportStyle::json) {
        json::Json event{
            {"event", "error"}, {"operation", operation_}, {"identifier", identifier_}};
        if (status) {
            event["status"] = *status;
            event["statusName"] = fileIOStatusName(*status);
        }
        event["message"] = message;
        printJson(out_, event);
        return;
    }
    endBarLine();
}

void TransferReport::endBarLine() {
    if (barDrawn_) {
        out_ << std::endl;
        barDrawn_ = false;
    }
}

}  // namespace skiff::ctl
