#pragma once
// Logging facade: every message carries a subsystem and a category. Messages keep
// their printf form; "%{public}" privacy markers are accepted and stripped.
// Sinks: the systemd journal when it is reachable, otherwise standard error, and
// while a LogCapture is alive, an in-memory list that tests read.

#include <cstdarg>
#include <mutex>
#include <string>
#include <vector>

namespace skiff::log {

enum class Level { debug, info, warning, error, fault };

struct Record {
    std::string subsystem;
    std::string category;
    Level level;
    std::string message;
};

inline constexpr const char* kSubsystem = "Mox.Harbor";

class Logger {
public:
    Logger(std::string subsystem, std::string category);

    void debug(const char* format, ...) const;
    void info(const char* format, ...) const;
    // Something is off but the service carries on (a setting that points nowhere).
    void warning(const char* format, ...) const;
    void error(const char* format, ...) const;
    void fault(const char* format, ...) const;
    void write(Level level, const char* format, va_list args) const;

    const std::string& category() const { return category_; }

private:
    std::string subsystem_;
    std::string category_;
};

// Drops what would go to standard error (the journal still gets it): a command-line tool
// whose users read its own words there.
void silenceStderr();

// The two loggers of the service. Created once, on first use, thread-safely.
const Logger& xpc();
const Logger& usbMuxNative();

// Turns a format with "%{public}" markers into a plain printf format.
std::string stripPrivacyMarkers(const char* format);

// Collects every record logged while it is alive (in addition to the normal sink).
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<Record> records() const;
    std::vector<std::string> messages() const;
    bool contains(const std::string& fragment) const;
    void clear();

private:
    friend void deliverToCaptures(const Record&);
    mutable std::mutex mutex_;
    std::vector<Record> records_;
};

}  // namespace skiff::log
