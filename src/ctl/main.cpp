// skiffctl: talks to skiffd on the session bus, for people and scripts.

#include <signal.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <map>
#include <optional>
#include <string>

#include "common/log.hpp"
#include "common/version.hpp"
#include "ctl/commands.hpp"
#include "ctl/ctl_session.hpp"
#include "ctl/item_commands.hpp"
#include "ctl/status_commands.hpp"
#include "ctl/transfer_commands.hpp"
#include "ctl/update_check.hpp"
#include "ctl/volume_commands.hpp"

namespace {

using skiff::ctl::CtlSession;

const std::map<std::string, std::int64_t> kRoles = {
    {"fileprovider", 0}, {"desktop", 1}, {"usbmux", 2}};

// Signals that end `watch` are taken from the pending set instead of killing the process,
// so they must be blocked before the bus thread starts.
void holdStopSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

// Sizes travel in one bus message, which holds no more than 64 MiB.
const CLI::Validator kBusSized(
    [](const std::string& value) -> std::string {
        try {
            if (std::stoull(value) <= skiff::ctl::kMaxBusBytes) {
                return {};
            }
        } catch (const std::exception&) {
        }
        return "at most 64M (" + std::to_string(skiff::ctl::kMaxBusBytes) +
               " bytes): one bus message carries no more";
    },
    "SIZE<=64M");

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"skiffctl: use skiffd, the Skiff service, from the command line"};
    app.require_subcommand(1);
    // The common options may follow the command too (`skiffctl status --json`).
    app.fallthrough();
    app.set_version_flag("--version", std::string("skiffctl ") + skiff::kVersionText);
    app.footer(skiff::ctl::kExitStatusHelp);
    // A wrong command line is told in one line.
    app.failure_message([](const CLI::App*, const CLI::Error& e) {
        return "skiffctl: " + std::string(e.what()) + " (skiffctl --help tells more)\n";
    });

    std::optional<std::string> role;
    double timeoutSeconds = 120;
    std::string bus;
    skiff::ctl::Output out;
    app.add_option("--role", role,
                   "Register as the desktop app or the file provider before the command, or not "
                   "at all (default: desktop for ping, lookup, relay, pull, push and the "
                   "measurements between the service and the file provider; none for the others)")
        ->check(CLI::IsMember({"desktop", "fileprovider", "none"}));
    app.add_option("--timeout", timeoutSeconds, "Seconds to wait for each call to the service")
        ->check(CLI::Validator(
            [](const std::string& value) -> std::string {
                try {
                    if (std::stod(value) > 0) {
                        return {};
                    }
                } catch (const std::exception&) {
                }
                return "a number of seconds above 0 is expected, not \"" + value + "\"";
            },
            "SECONDS"))
        ->capture_default_str();
    app.add_option("--bus", bus, "D-Bus address to use instead of the session bus");
    app.add_flag("--json", out.json, "Print results as JSON");
    bool verbose = false;
    app.add_flag("-v,--verbose", verbose, "Also show the service library's own log on stderr");

    auto* version = app.add_subcommand("version", "Print the service's build number");

    std::string pingRole = "desktop";
    auto* ping = app.add_subcommand(
        "ping", "Ask the service whether a client of a role answers (yes at once for your own)");
    ping->add_option("role", pingRole, "fileprovider, desktop, usbmux or a raw role number")
        ->capture_default_str();

    std::uint64_t echoCount = 1;
    auto* echo = app.add_subcommand("echo", "Time empty round trips to the service");
    echo->add_option("--count", echoCount, "How many round trips")
        ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1'000'000}))
        ->capture_default_str();

    auto* speedtest =
        app.add_subcommand("speedtest", "Measure latency and bandwidth to the phone's app");

    std::string identifier;
    std::string source = "fsGetAttributes";
    auto* mount = app.add_subcommand("mount", "Mount the volume");
    bool forceUnmount = false;
    auto* unmount = app.add_subcommand("unmount", "Unmount the volume");
    unmount->add_flag("--force", forceUnmount, "Unmount at once, even while it is in use");

    auto* lookup = app.add_subcommand("lookup", "Look up an item on the phone");
    lookup->add_option("identifier", identifier, "Path of the item in the app's storage")
        ->required()
        ->transform(skiff::ctl::identifierAsTyped());
    lookup
        ->add_option("--source", source,
                     "fsGetAttributes, fsLookupByName, fsSetAttributesRefresh or "
                     "fsSetAttributesAfterTruncate")
        ->capture_default_str();

    std::int64_t selector = 0;
    std::optional<std::string> bodyPath;
    std::optional<std::string> outputPath;
    auto* relay = app.add_subcommand("relay", "Send one relay request to the phone's app");
    relay->add_option("selector", selector, "The request code (0-65535)")
        ->required()
        ->check(CLI::Range(0, 65535));
    relay->add_option("--body", bodyPath, "File holding the request body, - for standard input");
    relay->add_option("--output", outputPath, "Write the raw response body to this file");

    skiff::ctl::WatchOptions watchOptions;
    auto* watch = app.add_subcommand(
        "watch",
        "Print each notification, device event and skiffd coming or going as one JSON line "
        "until interrupted");
    watch->add_option("--count", watchOptions.count, "Stop after this many notifications");
    watch->add_flag("--exit-on-loss", watchOptions.exitOnLoss,
                    "Exit (status 2) when skiffd is not running or goes away, instead of "
                    "waiting for it");

    std::uint64_t ingestBytes = 0;
    auto* ingest = app.add_subcommand("ingest", "Send bytes to the service and time it");
    ingest->add_option("bytes", ingestBytes, "How many bytes (suffixes K, M, G allowed)")
        ->required()
        ->transform(CLI::AsSizeValue(false))
        ->check(kBusSized);

    std::uint64_t chunkSize = 0;
    std::uint64_t chunkCount = 0;
    auto addChunks = [&](CLI::App* command) {
        command->add_option("chunk", chunkSize, "Bytes per chunk (suffixes K, M, G allowed)")
            ->required()
            ->transform(CLI::AsSizeValue(false))
            ->check(kBusSized);
        command->add_option("count", chunkCount, "How many chunks")->required();
    };
    auto* hostToExt =
        app.add_subcommand("host-to-ext", "Time the service sending chunks to the file provider");
    addChunks(hostToExt);
    auto* extToHost =
        app.add_subcommand("ext-to-host", "Time the file provider sending chunks to the service");
    addChunks(extToHost);

    std::int64_t pingValue = 0;
    auto* extToHostPing = app.add_subcommand(
        "ext-to-host-ping",
        "Time the file provider's ping of the service; VALUE is the role it pings (0: the "
        "service answers at once)");
    extToHostPing->add_option("value", pingValue, "Role the file provider pings")->required();

    std::string feedPath;
    auto* updateCheck = app.add_subcommand(
        "update-check",
        "Show the release an update feed announces first and whether it is newer than the service");
    updateCheck->add_option("feed", feedPath, "The feed file, - for standard input")->required();

    const skiff::ctl::ItemCommands itemCommands(app);

    std::string pullIdentifier;
    std::optional<std::string> pullDestination;
    auto* pull = app.add_subcommand("pull", "Copy an item from the phone to a local file");
    pull->add_option("identifier", pullIdentifier, "Path of the item in the app's storage")
        ->required()
        ->transform(skiff::ctl::identifierAsTyped());
    pull->add_option("destination", pullDestination,
                     "Local file or folder (default: the item's name in the current folder)");
    std::string pushFile;
    std::string pushIdentifier;
    auto* push = app.add_subcommand("push", "Copy a local file to an item on the phone");
    push->add_option("file", pushFile, "The local file")->required();
    push->add_option("identifier", pushIdentifier, "Path of the item in the app's storage")
        ->required()
        ->transform(skiff::ctl::identifierAsTyped());
    auto* devices = app.add_subcommand("devices", "List the UDIDs of the attached phones");
    auto* status =
        app.add_subcommand("status",
                           "Show whether skiffd runs, which phones are attached and whether a file "
                           "provider is registered");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // --help and --version end here too, with status 0.
        return app.exit(e) == 0 ? skiff::ctl::kExitOk : skiff::ctl::kExitUsage;
    }

    if (!verbose) {
        skiff::log::silenceStderr();
    }
    std::int64_t pingTarget = 0;
    if (ping->parsed()) {
        if (auto it = kRoles.find(pingRole); it != kRoles.end()) {
            pingTarget = it->second;
        } else {
            try {
                pingTarget = std::stoll(pingRole);
            } catch (const std::exception&) {
                std::cerr << "skiffctl: unknown role \"" << pingRole << "\"" << std::endl;
                return skiff::ctl::kExitUsage;
            }
        }
    }
    if (watch->parsed()) {
        holdStopSignals();
    }
    // The service relays and pings only for a registered caller, and the measurements need
    // one at the other end; the rest register only when asked to, so that they never push
    // out a desktop app or file provider that is running.
    const bool needsRole = ping->parsed() || lookup->parsed() || relay->parsed() ||
                           hostToExt->parsed() || extToHost->parsed() || extToHostPing->parsed() ||
                           pull->parsed() || push->parsed() || itemCommands.parsed();
    const std::string registerAs = role.value_or(needsRole ? "desktop" : "none");

    const auto callTimeout =
        std::chrono::milliseconds(static_cast<std::int64_t>(timeoutSeconds * 1000));
    if (updateCheck->parsed()) {
        // The feed is worth reading even with no bus or no skiffd to compare with.
        const auto serviceBuild = [&]() -> std::optional<std::int64_t> {
            try {
                CtlSession session(bus, callTimeout);
                return session.client().getXPCServiceVersion();
            } catch (const skiff::service::dbus::BusError&) {
                return std::nullopt;
            }
        };
        return runUpdateCheck(serviceBuild, out, feedPath);
    }
    try {
        CtlSession session(bus, callTimeout);
        if (registerAs == "fileprovider") {
            skiff::ctl::warnBeforeTakingFileProvider(session);
        }
        if (registerAs != "none" && !session.client().registerClient(kRoles.at(registerAs))) {
            std::cerr << "skiffctl: the service refused to register this client as " << registerAs
                      << std::endl;
            return skiff::ctl::kExitUnreachable;
        }
        if (version->parsed()) {
            return runVersion(session, out);
        }
        if (ping->parsed()) {
            return runPing(session, out, pingTarget);
        }
        if (echo->parsed()) {
            return runEcho(session, out, echoCount);
        }
        if (speedtest->parsed()) {
            return runSpeedTest(session, out);
        }
        if (mount->parsed()) {
            return runMount(session, out);
        }
        if (unmount->parsed()) {
            return runUnmount(session, out, forceUnmount);
        }
        if (lookup->parsed()) {
            return runLookup(session, out, identifier, source);
        }
        if (relay->parsed()) {
            return runRelay(session, out, selector, bodyPath, outputPath);
        }
        if (watch->parsed()) {
            return runWatch(session, watchOptions);
        }
        if (ingest->parsed()) {
            return runIngest(session, out, ingestBytes);
        }
        if (hostToExt->parsed()) {
            return runHostToExt(session, out, chunkSize, chunkCount);
        }
        if (extToHost->parsed()) {
            return runExtToHost(session, out, chunkSize, chunkCount);
        }
        if (extToHostPing->parsed()) {
            return runExtToHostPing(session, out, pingValue);
        }
        if (itemCommands.parsed()) {
            return itemCommands.run(session, out);
        }
        if (pull->parsed()) {
            return runPull(session, out, pullIdentifier, pullDestination);
        }
        if (push->parsed()) {
            return runPush(session, out, pushFile, pushIdentifier);
        }
        if (devices->parsed()) {
            return runDevices(session, out);
        }
        if (status->parsed()) {
            return runStatus(session, out);
        }
    } catch (const skiff::service::dbus::BusError& e) {
        std::cerr << "skiffctl: " << e.name() << ": " << e.message() << std::endl;
        return skiff::ctl::kExitUnreachable;
    }
    return skiff::ctl::kExitFailed;
}
