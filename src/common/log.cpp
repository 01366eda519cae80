#include "common/log.hpp"

#include <syslog.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <systemd/sd-journal.h>

namespace skiff::log {
namespace {

std::mutex& captureMutex() {
    static std::mutex m;
    return m;
}

std::vector<LogCapture*>& captures() {
    static std::vector<LogCapture*> list;
    return list;
}

std::atomic<bool> stderrSilenced{false};

// The journal is used when its socket exists and SKIFF_LOG does not ask for stderr.
bool useJournal() {
    static const bool journal = [] {
        const char* choice = std::getenv("SKIFF_LOG");
        if (choice != nullptr && std::strcmp(choice, "stderr") == 0) {
            return false;
        }
        return access("/run/systemd/journal/socket", W_OK) == 0;
    }();
    return journal;
}

int priorityOf(Level level) {
    switch (level) {
        case Level::debug:
            return LOG_DEBUG;
        case Level::info:
            return LOG_INFO;
        case Level::warning:
            return LOG_WARNING;
        case Level::error:
            return LOG_ERR;
        case Level::fault:
            return LOG_CRIT;
    }
    return LOG_ERR;
}

const char* nameOf(Level level) {
    switch (level) {
        case Level::debug:
            return "debug";
        case Level::info:
            return "info";
        case Level::warning:
            return "warning";
        case Level::error:
            return "error";
        case Level::fault:
            return "fault";
    }
    return "?";
}

std::string vformat(const char* format, va_list args) {
    const std::string plain = stripPrivacyMarkers(format);
    va_list copy;
    va_copy(copy, args);
    const int n = std::vsnprintf(nullptr, 0, plain.c_str(), copy);
    va_end(copy);
    if (n < 0) {
        return plain;
    }
    std::string out(static_cast<size_t>(n) + 1, '\0');
    std::vsnprintf(out.data(), out.size(), plain.c_str(), args);
    out.resize(static_cast<size_t>(n));
    return out;
}

}  // namespace

void deliverToCaptures(const Record& record) {
    std::lock_guard lock(captureMutex());
    for (LogCapture* capture : captures()) {
        std::lock_guard inner(capture->mutex_);
        capture->records_.push_back(record);
    }
}

std::string stripPrivacyMarkers(const char* format) {
    static constexpr std::string_view kMarkers[] = {"{public}", "{private}"};
    std::string out;
    for (const char* p = format; *p != '\0'; ++p) {
        out.push_back(*p);
        if (*p != '%') {
            continue;
        }
        if (p[1] == '%') {  // a literal percent sign
            out.push_back(*++p);
            continue;
        }
        for (std::string_view marker : kMarkers) {
            if (std::strncmp(p + 1, marker.data(), marker.size()) == 0) {
                p += marker.size();
                break;
            }
        }
    }
    return out;
}

void silenceStderr() {
    stderrSilenced = true;
}

Logger::Logger(std::string subsystem, std::string category)
    : subsystem_(std::move(subsystem)), category_(std::move(category)) {}

void Logger::write(Level level, const char* format, va_list args) const {
    Record record{subsystem_, category_, level, vformat(format, args)};
    if (useJournal()) {
        sd_journal_send("MESSAGE=%s", record.message.c_str(), "PRIORITY=%d", priorityOf(level),
                        "MOX_SUBSYSTEM=%s", subsystem_.c_str(), "MOX_CATEGORY=%s",
                        category_.c_str(), "SYSLOG_IDENTIFIER=%s", program_invocation_short_name,
                        nullptr);
    } else if (!stderrSilenced) {
        std::fprintf(stderr, "[%s:%s] %s: %s\n", subsystem_.c_str(), category_.c_str(),
                     nameOf(level), record.message.c_str());
    }
    deliverToCaptures(record);
}

#define SKIFF_LOG_LEVEL(name)                          \
    void Logger::name(const char* format, ...) const { \
        va_list args;                                  \
        va_start(args, format);                        \
        write(Level::name, format, args);              \
        va_end(args);                                  \
    }
SKIFF_LOG_LEVEL(debug)
SKIFF_LOG_LEVEL(info)
SKIFF_LOG_LEVEL(warning)
SKIFF_LOG_LEVEL(error)
SKIFF_LOG_LEVEL(fault)
#undef SKIFF_LOG_LEVEL

const Logger& xpc() {
    static const Logger logger(kSubsystem, "XPC");
    return logger;
}

const Logger& usbMuxNative() {
    static const Logger logger(kSubsystem, "UsbMuxNative");
    return logger;
}

LogCapture::LogCapture() {
    std::lock_guard lock(captureMutex());
    captures().push_back(this);
}

LogCapture::~LogCapture() {
    std::lock_guard lock(captureMutex());
    auto& list = captures();
    list.erase(std::remove(list.begin(), list.end(), this), list.end());
}

std::vector<Record> LogCapture::records() const {
    std::lock_guard lock(mutex_);
    return records_;
}

std::vector<std::string> LogCapture::messages() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> out;
    for (const auto& r : records_) {
        out.push_back(r.message);
    }
    return out;
}

bool LogCapture::contains(const std::string& fragment) const {
    std::lock_guard lock(mutex_);
    return std::any_of(records_.begin(), records_.end(), [&](const Record& r) {
        return r.message.find(fragment) != std::string::npos;
    });
}

void LogCapture::clear() {
    std::lock_guard lock(mutex_);
    records_.clear();
}

}  // namespace skiff::log
