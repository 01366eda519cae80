#include "dbus/support/test_bus.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <vector>

extern char** environ;

namespace skiff::testing {

namespace {

std::string readAddressLine(int fd, std::chrono::seconds limit) {
    std::string text;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (text.find('\n') == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            throw std::runtime_error("dbus-daemon did not print its address in time");
        }
        pollfd pfd{fd, POLLIN, 0};
        if (::poll(&pfd, 1, static_cast<int>(left.count())) < 0 && errno != EINTR) {
            throw std::runtime_error("poll on dbus-daemon pipe failed");
        }
        char buffer[256];
        const auto got = ::read(fd, buffer, sizeof buffer);
        if (got == 0) {
            throw std::runtime_error("dbus-daemon exited before printing its address");
        }
        if (got > 0) {
            text.append(buffer, static_cast<std::size_t>(got));
        }
    }
    return text.substr(0, text.find('\n'));
}

}  // namespace

TestBus::TestBus() {
    char pattern[] = "/tmp/skiff-bus-XXXXXX";
    if (::mkdtemp(pattern) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    dir_ = pattern;
    const std::string config = dir_ + "/session.conf";
    std::ofstream(config) << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus "
                             "Configuration 1.0//EN\"\n"
                             " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                             "<busconfig>\n"
                             "  <type>session</type>\n"
                             "  <listen>unix:path="
                          << dir_
                          << "/bus</listen>\n"
                             "  <auth>EXTERNAL</auth>\n"
                             "  <policy context=\"default\">\n"
                             "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
                             "    <allow eavesdrop=\"true\"/>\n"
                             "    <allow own=\"*\"/>\n"
                             "  </policy>\n"
                             "</busconfig>\n";

    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    std::string configArg = "--config-file=" + config;
    std::vector<char*> argv = {const_cast<char*>("dbus-daemon"), configArg.data(),
                               const_cast<char*>("--nofork"),
                               const_cast<char*>("--print-address=1"), nullptr};
    const int spawned =
        ::posix_spawnp(&pid_, "dbus-daemon", &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeFds[1]);
    if (spawned != 0) {
        ::close(pipeFds[0]);
        pid_ = -1;
        std::filesystem::remove_all(dir_);
        throw std::runtime_error("cannot start dbus-daemon");
    }
    try {
        address_ = readAddressLine(pipeFds[0], std::chrono::seconds(30));
    } catch (...) {
        ::close(pipeFds[0]);
        shutdown();
        throw;
    }
    ::close(pipeFds[0]);
}

TestBus::~TestBus() {
    shutdown();
}

void TestBus::stopDaemon(int signal) {
    if (pid_ > 0) {
        ::kill(pid_, signal);
        int status = 0;
        while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        pid_ = -1;
    }
}

void TestBus::kill() {
    stopDaemon(SIGKILL);
}

void TestBus::shutdown() {
    stopDaemon(SIGTERM);
    if (!dir_.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
        dir_.clear();
    }
}

}  // namespace skiff::testing
