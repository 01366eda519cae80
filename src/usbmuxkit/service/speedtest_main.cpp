// skiff-speedtest: one speed-test round (ping, download, upload) against the companion
// app of the first attached iPhone, through usbmuxd (USBMUXD_SOCKET_ADDRESS is honoured).
//   skiff-speedtest [--port PORT] [--mib N]

#include <CLI/CLI.hpp>
#include <cstdio>
#include <future>

#include "common/bridge_messages.hpp"
#include "common/io_runtime.hpp"
#include "usbmuxkit/service/usbmux_service.hpp"

int main(int argc, char** argv) {
    CLI::App app{"One USB speed-test round against the companion app"};
    std::uint16_t port = skiff::service::kCompanionAppPort;
    std::uint64_t mib = 48;
    app.add_option("--port", port, "Device port of the companion app");
    app.add_option("--mib", mib, "MiB to move each way");
    CLI11_PARSE(app, argc, argv);

    skiff::runtime::IoRuntime runtime(2);
    runtime.start();
    usbmuxkit::UsbMuxService service(runtime.executor());
    int status = 0;
    try {
        asio::co_spawn(runtime.executor(), service.start(), asio::use_future).get();
        auto round =
            asio::co_spawn(runtime.executor(), service.runSpeedTestRound(port, mib * 1024 * 1024),
                           asio::use_future)
                .get();
        std::printf(
            "device %s: ping %.3f ms, download %.2f MiB/s (%.1f Mbit/s), "
            "upload %.2f MiB/s (%.1f Mbit/s)\n",
            round.deviceUDID.empty() ? "(unknown)" : round.deviceUDID.c_str(), round.pingMs,
            round.download.mibPerSecond(), round.download.mbitPerSecond(),
            round.upload.mibPerSecond(), round.upload.mbitPerSecond());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "skiff-speedtest: %s\n", e.what());
        status = 1;
    }
    asio::co_spawn(runtime.executor(), service.shutdown(), asio::use_future).get();
    return status;
}
