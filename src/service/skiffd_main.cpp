// skiffd: starts the USB layer, serves clients on the session bus, and runs until SIGTERM
// or SIGINT (exit 0) or until its bus connection is lost (exit 1, so that the unit's
// restart-on-failure brings it back; a service holding no bus must not linger).
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <future>
#include <iostream>
#include <memory>
#include <string_view>

#include "common/heap_tuning.hpp"
#include "common/io_runtime.hpp"
#include "common/log.hpp"
#include "common/version.hpp"
#include "mount/mount_service.hpp"
#include "mount/phone_volume_requests.hpp"
#include "mount/relay_probe_coordinator.hpp"
#include "relay/tunnel_opener.hpp"
#include "relay/tunnel_relay_bridge.hpp"
#include "service/bridge_core.hpp"
#include "service/dbus/service_adapter.hpp"
#include "service/notification_hub.hpp"
#include "service/relay_transfer_sender.hpp"
#include "service/service_delegate.hpp"
#include "service/usbmux_service_link.hpp"
#include "tunnel/tunnel_engine.hpp"
#include "usbmuxkit/service/usbmux_service.hpp"

namespace {

// How long the last tasks get to end once the graph is taken down; what still waits then
// (nothing, normally) is dropped with the runtime.
constexpr std::chrono::milliseconds kDrainLimit{5000};

// A socket address that names no socket is usually a typo or a daemon not started yet;
// skiffd waits for it either way, but says so, since nothing else would.
void warnIfUsbmuxdMissing() {
    const char* address = std::getenv("USBMUXD_SOCKET_ADDRESS");
    if (address == nullptr || std::string_view(address).substr(0, 5) != "UNIX:") {
        return;
    }
    const char* path = address + 5;
    struct stat info {};
    if (::stat(path, &info) != 0 || !S_ISSOCK(info.st_mode)) {
        skiff::log::xpc().warning(
            "USBMUXD_SOCKET_ADDRESS names %{public}s, where no usbmuxd socket is; waiting for "
            "one to appear",
            path);
    }
}

// The mount.skiff that came with this skiffd: installed beside it (whatever the prefix), or
// built beside it in the build tree; else the one under the configured prefix.
std::string mountToolBesideThisProgram(std::string fallback) {
    std::error_code error;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error) {
        return fallback;
    }
    const auto folder = self.parent_path();
    for (const auto& candidate : {folder / SKIFF_SBIN_FROM_BIN / "mount.skiff",
                                  folder.parent_path() / "volume" / "mount.skiff"}) {
        if (::access(candidate.c_str(), X_OK) == 0) {
            return candidate.lexically_normal().string();
        }
    }
    return fallback;
}

}  // namespace

int main(int argc, char** argv) {
    using namespace skiff;
    CLI::App app{"skiffd: the Skiff service on the session bus"};
    app.set_version_flag("--version", std::string("skiffd ") + kVersionText + " (build " +
                                          std::to_string(kBuildNumber) + ")");
    service::dbus::ServiceAdapter::Options options;
    std::int64_t deadlineMs = options.clientDeadline.count();
    app.add_option("--client-deadline-ms", deadlineMs,
                   "How long a call to a client may take before the host call that waits for it "
                   "gives up (tests shorten it)")
        ->check(CLI::Range(std::int64_t{1}, std::int64_t{3600000}))
        ->capture_default_str();
    auto volumeTools = mount::MountServiceOptions::forThisSystem();
    volumeTools.mountTool = mountToolBesideThisProgram(volumeTools.mountTool);
    if (const char* tool = std::getenv("SKIFF_MOUNT_TOOL"); tool != nullptr && *tool != '\0') {
        volumeTools.mountTool = tool;
    }
    app.add_option("--mount-tool", volumeTools.mountTool,
                   "The program that mounts the volume (run as TOOL SOURCE MOUNTPOINT); "
                   "overrides SKIFF_MOUNT_TOOL")
        ->capture_default_str();
    app.footer(
        "Environment: DBUS_SESSION_BUS_ADDRESS (the session bus), USBMUXD_SOCKET_ADDRESS "
        "(UNIX:/path or HOST:PORT of usbmuxd; unset: /var/run/usbmuxd), SKIFF_LOG=stderr (log to "
        "standard error instead of the journal), SKIFF_MOUNT_TOOL (as --mount-tool).\nExit status: "
        "0 stopped by SIGTERM or SIGINT, 1 "
        "the bus could not be served or was lost, 2 the command line is wrong.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? 0 : 2;
    }
    warnIfUsbmuxdMissing();
    options.clientDeadline = std::chrono::milliseconds(deadlineMs);
    std::signal(SIGPIPE, SIG_IGN);
    tuneHeapForLargeBodies();

    // The object graph, in the order it is torn down backwards: the runtime outlives
    // everything that posts to it, the USB service outlives the core that uses it.
    runtime::IoRuntime runtime;
    runtime.start();
    usbmuxkit::UsbMuxService usbMux(runtime.executor());
    // The serialised core shares one strand: the relay bridge, the tunnel engine, the probe
    // and the transfers call each other without a hand-over, and each still runs one body
    // at a time between co_awaits. Blocking native calls stay on their serial queues.
    const asio::any_io_executor coreStrand = asio::make_strand(runtime.executor());
    // Built first and handed to every part that sends notifications or asks who is
    // attached, so no part runs half wired and nothing is set once anything runs.
    auto hub = std::make_shared<service::NotificationHub>(runtime.executor());
    auto relayBridge = std::make_shared<relay::TunnelRelayBridge>(
        coreStrand, std::make_shared<tunnel::TunnelEngine>(coreStrand),
        std::make_shared<relay::UsbMuxTunnelOpener>(), hub);
    auto transfers = std::make_shared<transfer::TransferCoordinator>(
        coreStrand, std::make_shared<service::RelayTransferSender>(relayBridge),
        std::make_shared<transfer::SharedFileStorage>(), hub);
    auto volume = std::make_shared<mount::MountService>(std::move(volumeTools));
    mount::ProbeCollaborators probeParts;
    probeParts.executor = coreStrand;
    probeParts.volume = volume;
    probeParts.usbConnected = [hub] { return hub->usbMuxConnection().has_value(); };
    // A speed test holds the relay's tunnel while its bytes flow: they count as contact.
    probeParts.link = std::make_shared<mount::BridgeProbeLink>(
        relayBridge, [&usbMux] { return usbMux.lastContact(); });
    auto probe = std::make_shared<mount::RelayProbeCoordinator>(std::move(probeParts));
    // The phone's volume pushes come back through the relay the probe uses; nothing can
    // push before the USB layer starts below.
    auto phoneVolume = std::make_shared<mount::PhoneVolumeRequests>(volume, probe);
    hub->attachVolumeRequests(phoneVolume);
    service::BridgeCollaborators collaborators;
    collaborators.executor = runtime.executor();
    collaborators.hub = hub;
    collaborators.usbMux = std::make_shared<service::UsbMuxServiceLink>(usbMux);
    collaborators.relayBridge = relayBridge;
    collaborators.transfers = transfers;
    collaborators.volume = volume;
    collaborators.volumeListener = probe;
    collaborators.volumeControl = phoneVolume;
    collaborators.probe.usbDidConnect = [probe] { probe->usbDidConnect(); };
    collaborators.probe.usbDidDisconnect = [probe] { probe->usbDidDisconnect(); };
    auto core = std::make_shared<service::BridgeCore>(std::move(collaborators));

    // The first of a stop signal (0) and a lost bus (1) decides the exit status.
    std::promise<int> exitStatus;
    std::atomic<bool> decided{false};
    auto decide = [&](int status) {
        if (!decided.exchange(true)) {
            exitStatus.set_value(status);
        }
    };
    asio::signal_set signals(runtime.context(), SIGTERM, SIGINT);
    signals.async_wait([&](const asio::error_code& ec, int signal) {
        if (!ec) {
            log::xpc().info("stopping on signal %{public}d", signal);
            decide(0);
        }
    });

    std::unique_ptr<service::dbus::ServiceAdapter> adapter;
    try {
        auto delegate = std::make_shared<service::ServiceDelegate>(core);
        adapter = std::make_unique<service::dbus::ServiceAdapter>(runtime.executor(), delegate, hub,
                                                                  options);
        // The name is ours, so no other skiffd runs, and no call is served yet: what an
        // earlier run left behind can go.
        volume->cleanUpAfterEarlierRun();
        // Nothing runs before the adapter listens: a device event or a progress step before
        // this point would reach no observer.
        transfers->startCleanup();
        core->bootstrapUsbMuxIfNeeded();
        adapter->start([&] {
            log::xpc().error("the bus connection is gone; exiting so that skiffd is restarted");
            decide(1);
        });
    } catch (const std::exception& e) {
        log::xpc().error("cannot serve the bus: %{public}s", e.what());
        std::cerr << "skiffd: " << e.what() << std::endl;
        runtime.stop();
        return 1;
    }

    const int status = exitStatus.get_future().get();
    signals.cancel();
    adapter->close();
    // The clean-up loop holds the coordinator; ending it lets the graph go.
    transfers->stopCleanup();
    probe->stop();
    // The USB layer stops while the runtime still runs its last tasks, so no device event
    // is delivered into a torn-down graph.
    asio::co_spawn(runtime.executor(), usbMux.shutdown(true), asio::use_future).get();
    // A tunnel's blocking receive ends with the USB layer and still posts its completion.
    runtime.drain(kDrainLimit);
    return status;
}
