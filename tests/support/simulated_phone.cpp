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

uint32_t firstNumber(const sim::ControlReply& reply) {
    if (reply.lines.empty()) {
        throw std::runtime_error("the simulator answered without a handle");
    }
    return uint32_t(std::stoul(reply.lines.front()));
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
    ::setenv("USBMUXD_SOCKET_ADDRESS", ("UNIX:" + muxSocketPath()).c_str(), 1);
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

std::string SimulatedPhone::muxSocketPath() const {
    return dir_.path() + "/usbmuxd.sock";
}

std::string SimulatedPhone::controlSocketPath() const {
    return dir_.path() + "/control.sock";
}

std::string SimulatedPhone::muxEnvironment() const {
    return "USBMUXD_SOCKET_ADDRESS=UNIX:" + muxSocketPath();
}

sim::ControlReply SimulatedPhone::command(const std::string& line) {
    return sim::sendControlCommand(controlSocketPath(), line);
}

namespace {

sim::ControlReply mustSucceed(sim::ControlReply reply, const std::string& line) {
    if (!reply.ok) {
        throw std::runtime_error("simulator refused \"" + line + "\": " + reply.error);
    }
    return reply;
}

}  // namespace

uint32_t SimulatedPhone::attach(const std::string& udid) {
    std::string line = "attach " + udidArgument(udid);
    return firstNumber(mustSucceed(command(line), line));
}

void SimulatedPhone::detach(const std::string& udid) {
    std::string line = "detach " + udidArgument(udid);
    mustSucceed(command(line), line);
}

uint32_t SimulatedPhone::replug(const std::string& udid) {
    std::string line = "replug " + udidArgument(udid);
    return firstNumber(mustSucceed(command(line), line));
}

std::vector<SimulatedConnection> SimulatedPhone::connections() {
    auto reply = mustSucceed(command("connections"), "connections");
    std::vector<SimulatedConnection> out;
    for (const auto& line : reply.lines) {
        size_t first = line.find(' ');
        size_t second = line.find(' ', first + 1);
        out.push_back({uint32_t(std::stoul(line.substr(0, first))),
                       uint16_t(std::stoul(line.substr(first + 1, second - first - 1))),
                       second == std::string::npos ? "" : line.substr(second + 1)});
    }
    return out;
}

size_t SimulatedPhone::drop(const std::string& udid) {
    std::string line = udid.empty() ? "drop" : "drop " + udid;
    return firstNumber(mustSucceed(command(line), line));
}

}  // namespace skiff::test
