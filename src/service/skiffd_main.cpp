// skiffd: starts the USB layer, serves clients on the session bus, and runs until
// SIGTERM or SIGINT.
#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>
#include <thread>

#include "common/log.hpp"
#include "common/runtime.hpp"
#include "service/bridge_core.hpp"
#include "service/dbus/service_adapter.hpp"
#include "service/service_delegate.hpp"

namespace {

// Waits for a termination signal on a thread of its own, so the handler needs no
// async-signal-safe tricks.
int waitForTermination() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    int received = 0;
    sigwait(&signals, &received);
    return received;
}

}  // namespace

int main() {
    using namespace skiff;
    // Blocked before any thread starts, so every thread inherits the mask and only
    // sigwait sees them.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    auto& runtime = runtime::IoRuntime::shared();
    runtime.start();
    auto& core = service::BridgeCore::shared();
    core.bootstrapUsbMuxIfNeeded();

    std::unique_ptr<service::dbus::ServiceAdapter> adapter;
    try {
        auto delegate = std::make_shared<service::ServiceDelegate>(core.shared_from_this());
        adapter = std::make_unique<service::dbus::ServiceAdapter>(delegate);
        adapter->start();
    } catch (const std::exception& e) {
        log::xpc().error("cannot serve the bus: %{public}s", e.what());
        runtime.stop();
        return 1;
    }

    const int signal = waitForTermination();
    log::xpc().info("stopping on signal %{public}d", signal);
    adapter->stop();
    adapter.reset();
    runtime.stop();
    return 0;
}
