// skiff-phone-sim: a simulated iPhone behind a usbmuxd-protocol socket.
//   skiff-phone-sim serve --dir DIR [--device UDID]... [--echo-port PORT | --no-echo]
//                         [--app-port PORT | --no-app] [--storage DIR] [--watch-storage]
//                         [--link usb2|usb3] [--link-latency MS] [--link-rate MBPS]
//   skiff-phone-sim ctl --dir DIR list | attach UDID | detach UDID | replug UDID |
//                                 connections | drop [UDID] | push CODE [BODY] |
//                                 flood CODE BYTES SECONDS | fault ... | inject ... |
//                                 received

#include <CLI/CLI.hpp>
#include <asio.hpp>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>

#include "common/heap_tuning.hpp"
#include "sim/control_client.hpp"
#include "sim/sim_phone.hpp"

namespace {

void say(const std::string& line) {
    std::cout << line << std::endl;
}

// Without --storage the app's storage is an empty folder that lives as long as the phone.
std::string makeEmptyStorage() {
    const char* base = std::getenv("TMPDIR");
    std::string path =
        std::string(base != nullptr && *base != 0 ? base : "/tmp") + "/skiff-phone-storage-XXXXXX";
    return ::mkdtemp(path.data()) != nullptr ? path : std::string();
}

int serve(skiff::sim::SimPhoneOptions options) {
    asio::io_context io;
    std::string dir = options.dir;
    std::string ownStorage;
    if (options.storage.empty()) {
        ownStorage = options.storage = makeEmptyStorage();
    }
    struct RemoveStorage {
        std::string path;
        ~RemoveStorage() {
            std::error_code ignored;
            if (!path.empty()) {
                std::filesystem::remove_all(path, ignored);
            }
        }
    } removeStorage{ownStorage};
    // A session by hand names a fresh folder more often than not.
    std::error_code madeDir;
    std::filesystem::create_directories(dir, madeDir);
    skiff::sim::SimPhone phone(io, std::move(options), say);
    try {
        phone.start();
    } catch (const std::system_error& e) {
        std::cerr << "skiff-phone-sim: cannot start in " << dir << ": " << e.what() << "\n";
        return 1;
    }
    asio::signal_set signals(io, SIGINT, SIGTERM);
    signals.async_wait([&](std::error_code, int) {
        say("stopping");
        io.stop();
    });
    for (const auto& device : phone.devices().devices()) {
        say("device attached: " + device.udid + " (handle " + std::to_string(device.handle) + ")");
    }
    say("ready: usbmuxd socket " + skiff::sim::SimPhone::muxSocketPath(dir) + ", control socket " +
        skiff::sim::SimPhone::controlSocketPath(dir));
    io.run();
    return 0;
}

int control(const std::string& dir, const std::vector<std::string>& words) {
    std::string line;
    for (const auto& word : words) {
        line += (line.empty() ? "" : " ") + (word.empty() ? std::string("\"\"") : word);
    }
    auto reply = skiff::sim::sendControlCommand(skiff::sim::SimPhone::controlSocketPath(dir), line);
    for (const auto& text : reply.lines) {
        std::cout << text << "\n";
    }
    if (!reply.ok) {
        std::cerr << "skiff-phone-sim: " << reply.error << "\n";
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    // The app takes and answers 4 MiB chunks back to back, like skiffd.
    skiff::tuneHeapForLargeBodies();
    CLI::App app{"A simulated iPhone reached through the usbmuxd protocol"};
    app.require_subcommand(1);

    skiff::sim::SimPhoneOptions options;
    uint16_t echoPort = skiff::sim::kEchoPort;
    bool noEcho = false;
    uint16_t appPort = skiff::sim::kCompanionAppPort;
    bool noApp = false;
    auto* serveCommand = app.add_subcommand("serve", "Run the simulated phone");
    serveCommand->add_option("--dir", options.dir, "Directory for usbmuxd.sock and control.sock")
        ->required();
    serveCommand->add_option("--device", options.devices, "UDID of a device attached at start");
    serveCommand->add_option("--echo-port", echoPort, "Device port with an echo app");
    serveCommand->add_flag("--no-echo", noEcho, "No echo app on any port");
    serveCommand->add_option("--app-port", appPort, "Device port of the companion app");
    serveCommand->add_flag("--no-app", noApp, "No companion app on any port");
    serveCommand
        ->add_option("--storage", options.storage,
                     "Folder that stands for the phone's storage (default: a new empty one)")
        ->check(CLI::ExistingDirectory);
    serveCommand->add_flag("--watch-storage", options.watchStorage,
                           "Push an itemMutation for each item created or deleted in the storage");

    std::string linkName;
    double linkLatencyMs = -1;
    double linkRateMBps = -1;
    serveCommand
        ->add_option(
            "--link", linkName,
            "Shape the link as a phone on USB: usb2 (1 ms, 35 MB/s) or usb3 (1 ms, 350 MB/s)")
        ->check(CLI::IsMember({"usb2", "usb3"}));
    serveCommand
        ->add_option("--link-latency", linkLatencyMs,
                     "Hold every answer of the app back by this round trip, in milliseconds")
        ->check(CLI::Range(0.0, 60'000.0));
    serveCommand
        ->add_option("--link-rate", linkRateMBps,
                     "Pace the tunnel's bytes, each way, at this many MB/s (10^6 bytes)")
        ->check(CLI::Range(0.001, 1'000'000.0));

    std::string ctlDir;
    std::vector<std::string> words;
    auto* ctlCommand = app.add_subcommand(
        "ctl",
        "Drive a running simulated phone: list, attach UDID, detach UDID, replug UDID, "
        "connections, drop [UDID], push CODE [BODY], flood CODE BYTES SECONDS, fault NAME [VALUE], "
        "inject WHAT, received");
    ctlCommand->add_option("--dir", ctlDir, "The directory given to serve")->required();
    ctlCommand->add_option("command", words, "The command and its UDID")->required();

    CLI11_PARSE(app, argc, argv);
    if (serveCommand->parsed()) {
        options.echoPort = noEcho ? std::nullopt : std::optional<uint16_t>(echoPort);
        options.appPort = noApp ? std::nullopt : std::optional<uint16_t>(appPort);
        // A preset first; the numbers given beside it win.
        if (!linkName.empty()) {
            options.link = *skiff::sim::linkPreset(linkName);
        }
        if (linkLatencyMs >= 0) {
            options.link.latency =
                std::chrono::microseconds(static_cast<std::int64_t>(linkLatencyMs * 1000));
        }
        if (linkRateMBps > 0) {
            options.link.bytesPerSecond = static_cast<std::uint64_t>(linkRateMBps * 1e6);
        }
        return serve(std::move(options));
    }
    return control(ctlDir, words);
}
