#include "dbus/support/test_bus.hpp"

#include <signal.h>

#include <chrono>
#include <fstream>
#include <stdexcept>

namespace skiff::testing {

TestBus::TestBus() {
    const std::string config = dir_.path() + "/session.conf";
    std::ofstream(config) << "<busconfig>\n"
                             "  <type>session</type>\n"
                             "  <listen>unix:path="
                          << dir_.path()
                          << "/bus</listen>\n"
                             "  <auth>EXTERNAL</auth>\n"
                             "  <policy context=\"default\">\n"
                             "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
                             "    <allow eavesdrop=\"true\"/>\n"
                             "    <allow own=\"*\"/>\n"
                             "  </policy>\n"
                             "</busconfig>\n";
    daemon_ = std::make_unique<test::ChildProcess>(std::vector<std::string>{
        "dbus-daemon", "--config-file=" + config, "--nofork", "--print-address=1"});
    // Its first line is the address (it prints nothing else on success).
    if (!daemon_->waitForOutput("\n", std::chrono::seconds(30))) {
        throw std::runtime_error("dbus-daemon did not print its address:\n" + daemon_->output());
    }
    const auto output = daemon_->output();
    address_ = output.substr(0, output.find('\n'));
}

void TestBus::kill() {
    ::kill(daemon_->pid(), SIGKILL);
    daemon_->waitForExit(std::chrono::seconds(30));
}

}  // namespace skiff::testing
