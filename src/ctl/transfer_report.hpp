#pragma once
// How skiffctl shows a whole-file transfer: a redrawn bar on a terminal, one line per
// progress step otherwise, or one JSON object per event with --json; then one closing
// line with the bytes, the seconds and the rate. Also the words for a transfer's
// failure status, so that people read what went wrong and scripts still get the number.
//
// Plain values writing to the streams they are given; one thread at a time.

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "common/notification_payloads.hpp"

namespace skiff::ctl {

enum class ReportStyle { bar, lines, json };

// The name of a RequestFileIO status ("noDevice"), "unknown" outside 0-8.
std::string_view fileIOStatusName(std::int64_t status);
// What a failure status means to a person ("no phone attached").
std::string fileIOStatusText(std::int64_t status);

class TransferReport {
public:
    // operation: "pull" or "push"; path: the local file.
    TransferReport(std::ostream& out, ReportStyle style, std::string operation,
                   std::string identifier, std::string path);
    TransferReport(const TransferReport&) = delete;
    TransferReport& operator=(const TransferReport&) = delete;

    void progress(const service::FileIOProgressPayload& step);
    void finished(std::uint64_t bytes, double seconds);
    // The failure in JSON, with the service's status when it gave one (the caller prints
    // the words on standard error); ends the bar's line so that they start on a fresh one.
    void failed(std::optional<std::int64_t> status, const std::string& message);

private:
    void endBarLine();

    std::ostream& out_;
    ReportStyle style_;
    std::string operation_;
    std::string identifier_;
    std::string path_;
    bool barDrawn_ = false;
    int shownPercent_ = -1;
};

}  // namespace skiff::ctl
