// skiff-usb-demo: walks a person through what the native USB layer does, against a
// running simulated phone (whose control socket it uses to plug devices in and out).
//   skiff-usb-demo --dir DIR [--port PORT]   (DIR as given to skiff-phone-sim serve,
//                                             PORT where its echo app listens)

#include <CLI/CLI.hpp>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sim/control_client.hpp"
#include "sim/sim_phone.hpp"
#include "usbmuxkit/usbmux_flat.h"

namespace {

constexpr auto kWait = std::chrono::seconds(15);

struct Events {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::pair<int32_t, std::string>> seen;
};

Events& events() {
    static Events e;
    return e;
}

void onDeviceEvent(const DeviceEvent* event) {
    auto& e = events();
    std::lock_guard lock(e.mutex);
    e.seen.emplace_back(event->eventType, event->udid);
    e.changed.notify_all();
}

// Waits for the next event of this kind for udid, after the first `after` events.
bool waitForEvent(int32_t type, const std::string& udid, size_t after) {
    auto& e = events();
    std::unique_lock lock(e.mutex);
    return e.changed.wait_for(lock, kWait, [&] {
        for (size_t i = after; i < e.seen.size(); ++i) {
            if (e.seen[i].first == type && e.seen[i].second == udid) {
                return true;
            }
        }
        return false;
    });
}

size_t eventCount() {
    std::lock_guard lock(events().mutex);
    return events().seen.size();
}

std::string firstAnnounced() {
    auto& e = events();
    std::unique_lock lock(e.mutex);
    e.changed.wait_for(lock, kWait, [&] { return !e.seen.empty(); });
    return e.seen.empty() ? std::string() : e.seen.front().second;
}

bool control(const std::string& dir, const std::string& line) {
    auto reply = skiff::sim::sendControlCommand(skiff::sim::SimPhone::controlSocketPath(dir), line);
    if (!reply.ok) {
        std::cout << "  the simulated phone refused \"" << line << "\": " << reply.error << "\n";
    }
    return reply.ok;
}

tunnel_id tunnelTo(const std::string& udid, uint16_t port) {
    tunnel_id id{};
    std::strncpy(id.udid, udid.c_str(), sizeof(id.udid) - 1);
    id.port = port;
    return id;
}

// Sends data and reads the echo on a second thread, both on the connection the tunnel has
// (made first when it has none); a failed echo drops that connection.
bool echo(const tunnel_id& id, const std::vector<uint8_t>& data, std::vector<uint8_t>& back) {
    back.assign(data.size(), 0);
    usbmux_tunnel_conn* conn = usbmux_tunnel_conn_open(id);
    if (conn == nullptr) {
        return false;
    }
    bool received = false;
    std::thread reader(
        [&] { received = usbmux_tunnel_conn_recv(conn, back.data(), uint32_t(back.size())); });
    bool sent = usbmux_tunnel_conn_send(conn, data.data(), uint32_t(data.size()));
    if (!sent) {
        usbmux_tunnel_conn_invalidate(conn);  // wakes the reader
    }
    reader.join();
    usbmux_tunnel_conn_release(conn);
    return sent && received && back == data;
}

int run(const std::string& dir, uint16_t port) {
    std::cout << "1. Starting the native USB layer and listening for phones.\n";
    // Registered first so the announcement of the phones already present is not missed.
    usbmux_mgr_set_device_event_callback(&onDeviceEvent);
    if (!usbmux_mgr_start()) {
        std::cout << "   usbmuxd could not be reached.\n";
        return 1;
    }
    std::string phone = firstAnnounced();
    if (phone.empty()) {
        std::cout << "   No phone was announced.\n";
        return 1;
    }
    std::cout << "   Phone attached: " << phone << "\n";

    std::cout << "2. Plugging a second phone in and out again.\n";
    const std::string second = "DEMO-SECOND-PHONE";
    size_t before = eventCount();
    if (control(dir, "attach " + second) && waitForEvent(1, second, before)) {
        std::cout << "   The layer saw it arrive: " << second << "\n";
    }
    before = eventCount();
    if (control(dir, "detach " + second) && waitForEvent(2, second, before)) {
        std::cout << "   The layer saw it leave: " << second << "\n";
    }

    std::cout << "3. Opening a tunnel to port " << port << " of " << phone
              << " (an echo app listens there).\n";
    auto id = tunnelTo("", port);  // empty: the first phone listed
    if (!usbmux_tunnel_ensure(id)) {
        std::cout << "   The tunnel could not be opened.\n";
        return 1;
    }
    std::string greeting = "hello from the desktop";
    std::vector<uint8_t> back;
    bool ok = echo(id, std::vector<uint8_t>(greeting.begin(), greeting.end()), back);
    std::cout << "   Sent \"" << greeting << "\", got back \""
              << std::string(back.begin(), back.end()) << "\"" << (ok ? "" : " (mismatch!)")
              << "\n";

    std::vector<uint8_t> bulk(8u << 20);
    for (size_t i = 0; i < bulk.size(); ++i) {
        bulk[i] = uint8_t(i * 31 + 7);
    }
    auto start = std::chrono::steady_clock::now();
    bool bulkOk = echo(id, bulk, back);
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::cout << "   Moved 8 MiB there and back " << (bulkOk ? "intact" : "CORRUPTED") << " in "
              << seconds << " s (" << (2 * 8 / seconds) << " MiB/s both ways).\n";

    std::cout << "4. Unplugging and re-plugging " << phone << " (it gets a new handle).\n";
    before = eventCount();
    if (control(dir, "replug " + phone) && waitForEvent(1, phone, before)) {
        std::cout << "   Is the old tunnel still connected? "
                  << (usbmux_mgr_check_connected(id) ? "yes" : "no") << "\n";
        ok = echo(id, {'a', 'g', 'a', 'i', 'n'}, back);
        std::cout << "   The next echo reconnected and " << (ok ? "came back" : "did not come back")
                  << ".\n";
    }

    usbmux_mgr_shutdown();
    std::cout << "5. Native layer shut down.\n";
    return ok && bulkOk ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Shows the native USB layer at work against a simulated phone"};
    std::string dir;
    uint16_t port = 33326;
    app.add_option("--dir", dir, "The directory given to skiff-phone-sim serve")->required();
    app.add_option("--port", port, "Device port of the simulated phone's echo app");
    CLI11_PARSE(app, argc, argv);
    ::setenv("USBMUXD_SOCKET_ADDRESS", ("UNIX:" + skiff::sim::SimPhone::muxSocketPath(dir)).c_str(),
             1);
    return run(dir, port);
}
