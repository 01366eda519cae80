#include "support/simulated_phone.hpp"

#include <cstdlib>
#include <stdexcept>

#include "sim/control_client.hpp"

namespace skiff::test {
namespace {

constexpr auto kStartTimeout = std::chrono::seconds(30);

std::string udidArgument(const std::string& udid) {
    return udid.empty() ? "\"\"" : udid;
}

}  // namespace

SimulatedPhone::SimulatedPhone(std::vector<std::string> devices, std::vector<std::string> extraArgs)
    : dir_("skiff-sim") {
    std::vector<std::string> argv = {buildPath("src/sim/skiff-phone-sim"), "serve", "--dir",
                                     dir_.path()};
    for (auto& udid : devices) {
        argv.push_back("--device");
        argv.push_back(std::move(udid));
    }
    argv.insert(argv.end(), extraArgs.begin(), extraArgs.end());
    argv_ = std::move(argv);
    start();
    ::setenv("USBMUXD_SOCKET_ADDRESS", ("UNIX:" + dir_.path() + "/usbmuxd.sock").c_str(), 1);
}

void SimulatedPhone::stop() {
    process_.reset();
}

void SimulatedPhone::start() {
    if (process_) {
        return;
    }
    process_ = std::make_unique<ChildProcess>(argv_);
    if (!process_->waitForOutput("ready:", kStartTimeout)) {
        std::string output = process_->output();
        process_.reset();
        throw std::runtime_error("skiff-phone-sim did not become ready:\n" + output);
    }
}

SimulatedPhone::~SimulatedPhone() {
    ::unsetenv("USBMUXD_SOCKET_ADDRESS");
    process_.reset();
}

std::string SimulatedPhone::muxEnvironment() const {
    return "USBMUXD_SOCKET_ADDRESS=UNIX:" + dir_.path() + "/usbmuxd.sock";
}

sim::ControlReply SimulatedPhone::command(const std::string& line) {
    return sim::sendControlCommand(dir_.path() + "/control.sock", line);
}

sim::ControlReply SimulatedPhone::mustSucceed(const std::string& line) {
    auto reply = command(line);
    if (!reply.ok) {
        throw std::runtime_error("simulator refused \"" + line + "\": " + reply.error);
    }
    return reply;
}

std::uint32_t SimulatedPhone::numberAnswering(const std::string& line) {
    const auto reply = mustSucceed(line);
    if (reply.lines.empty()) {
        throw std::runtime_error("the simulator answered \"" + line + "\" without a number");
    }
    return std::uint32_t(std::stoul(reply.lines.front()));
}

uint32_t SimulatedPhone::attach(const std::string& udid) {
    return numberAnswering("attach " + udidArgument(udid));
}

void SimulatedPhone::detach(const std::string& udid) {
    mustSucceed("detach " + udidArgument(udid));
}

uint32_t SimulatedPhone::replug(const std::string& udid) {
    return numberAnswering("replug " + udidArgument(udid));
}

std::vector<SimulatedConnection> SimulatedPhone::connections() {
    std::vector<SimulatedConnection> out;
    for (const auto& line : mustSucceed("connections").lines) {
        size_t first = line.find(' ');
        size_t second = line.find(' ', first + 1);
        out.push_back({uint32_t(std::stoul(line.substr(0, first))),
                       uint16_t(std::stoul(line.substr(first + 1, second - first - 1))),
                       second == std::string::npos ? "" : line.substr(second + 1)});
    }
    return out;
}

size_t SimulatedPhone::drop(const std::string& udid) {
    return numberAnswering(udid.empty() ? "drop" : "drop " + udid);
}

}  // namespace skiff::test
