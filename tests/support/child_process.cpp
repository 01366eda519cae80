#include "support/child_process.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace skiff::test {

ChildProcess::ChildProcess(std::vector<std::string> argv, std::vector<std::string> extraEnv) {
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0 || ::pipe2(wakeFd_, O_CLOEXEC) != 0) {
        throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
    }
    outputFd_ = pipeFds[0];
    const UniqueFd writeEnd(pipeFds[1]);
    SpawnOptions options{std::move(argv), true,      environmentWith(extraEnv), -1,
                         pipeFds[1],      pipeFds[1]};
    try {
        child_.emplace(options);
    } catch (const std::system_error& e) {
        for (int fd : {outputFd_, wakeFd_[0], wakeFd_[1]}) {
            ::close(fd);
        }
        throw std::runtime_error(e.what());
    }
    reader_ = std::thread([this] { readOutput(); });
}

ChildProcess::~ChildProcess() {
    stop();
    char byte = 1;
    (void)!::write(wakeFd_[1], &byte, 1);
    reader_.join();
    for (int fd : {outputFd_, wakeFd_[0], wakeFd_[1]}) {
        ::close(fd);
    }
}

void ChildProcess::awaitOutputEnd() {
    // Let the reader drain what the child wrote last, so output() after an exit is
    // complete; a grandchild holding the pipe open must not hang the test.
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(5), [this] { return outputEnded_; });
}

void ChildProcess::readOutput() {
    char buffer[4096];
    for (;;) {
        pollfd fds[2] = {{outputFd_, POLLIN, 0}, {wakeFd_[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            break;
        }
        if (fds[0].revents == 0) {
            break;  // woken up
        }
        ssize_t n = ::read(outputFd_, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        std::lock_guard lock(mutex_);
        output_.append(buffer, size_t(n));
        changed_.notify_all();
    }
    std::lock_guard lock(mutex_);
    outputEnded_ = true;
    changed_.notify_all();
}

bool ChildProcess::waitForOutput(std::string_view text, std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, timeout,
                      [&] { return output_.find(text) != std::string::npos || outputEnded_; });
    return output_.find(text) != std::string::npos;
}

std::string ChildProcess::output() const {
    std::lock_guard lock(mutex_);
    return output_;
}

std::optional<int> ChildProcess::waitForExit(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (const auto status = child_->reap(WNOHANG)) {
            if (!std::exchange(exitSeen_, true)) {
                awaitOutputEnd();
            }
            return status;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left <= std::chrono::milliseconds(0)) {
            return std::nullopt;
        }
        pollfd exited{child_->pidfd(), POLLIN, 0};
        ::poll(&exited, 1, int(left.count()));
    }
}

int ChildProcess::stop(std::chrono::milliseconds grace) {
    if (const auto status = waitForExit(std::chrono::milliseconds(0))) {
        return *status;
    }
    child_->signal(SIGTERM);
    if (auto status = waitForExit(grace)) {
        return *status;
    }
    child_->signal(SIGKILL);
    return waitForExit(std::chrono::seconds(30)).value_or(-1);
}

TempDir::TempDir(std::string_view prefix) {
    const char* base = std::getenv("TMPDIR");
    std::string pattern =
        std::string(base && *base ? base : "/tmp") + "/" + std::string(prefix) + "-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp " + pattern + ": " + std::strerror(errno));
    }
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string buildPath(std::string_view relative) {
    const char* dir = std::getenv("SKIFF_BUILD_DIR");
    if (dir == nullptr || *dir == '\0') {
        throw std::runtime_error("SKIFF_BUILD_DIR is not set (run the test through ctest)");
    }
    return std::string(dir) + "/" + std::string(relative);
}

std::uint64_t ChildProcess::peakResidentBytes() const {
    std::ifstream status("/proc/" + std::to_string(pid()) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("VmHWM:")) {
            return std::stoull(line.substr(6)) * 1024;
        }
    }
    return 0;
}

}  // namespace skiff::test
