#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "common/spawned_child.hpp"

namespace skiff::test {

// A child process (common/spawned_child.hpp) whose standard output and standard error
// are collected into one text. The destructor stops it (SIGTERM, bounded wait, SIGKILL),
// so a test never leaves a process behind.
class ChildProcess {
public:
    // argv[0] is the program, a path or a name looked up in PATH. extraEnv entries ("NAME=value")
    // are added to, or replace, this process's environment. Throws std::runtime_error when spawning
    // fails.
    explicit ChildProcess(std::vector<std::string> argv, std::vector<std::string> extraEnv = {});
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // The most memory it has held resident so far (VmHWM), in bytes; 0 once it is gone.
    std::uint64_t peakResidentBytes() const;

    // Waits until the collected output contains text; false on time-out or when the
    // output ended without it.
    bool waitForOutput(std::string_view text, std::chrono::milliseconds timeout);
    std::string output() const;

    // Waits for the process to exit by itself; its wait status, or nullopt on time-out.
    std::optional<int> waitForExit(std::chrono::milliseconds timeout);

    pid_t pid() const { return child_->pid(); }

    // SIGTERM, then SIGKILL after grace; returns the wait status. Harmless when already
    // stopped.
    int stop(std::chrono::milliseconds grace = std::chrono::seconds(10));

private:
    void readOutput();
    void awaitOutputEnd();

    std::optional<SpawnedChild> child_;
    int outputFd_ = -1;
    int wakeFd_[2] = {-1, -1};
    bool exitSeen_ = false;
    std::thread reader_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::string output_;
    bool outputEnded_ = false;
};

// A fresh directory under $TMPDIR (or /tmp), removed with its contents on destruction.
class TempDir {
public:
    explicit TempDir(std::string_view prefix = "skiff-test");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

// $SKIFF_BUILD_DIR/relative, or throws std::runtime_error when the variable is unset.
std::string buildPath(std::string_view relative);

}  // namespace skiff::test
