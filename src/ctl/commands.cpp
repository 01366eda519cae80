#include "ctl/commands.hpp"

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <sstream>
#include <system_error>
#include <variant>
#include <vector>

#include "common/json.hpp"
#include "ctl/notification_line.hpp"
#include "ctl/output.hpp"
#include "ctl/relay_text.hpp"
#include "ctl/status_commands.hpp"
#include "relay/relay_schema.hpp"
#include "service/dbus/shared_relay.hpp"

namespace skiff::ctl {

namespace {

using Clock = std::chrono::steady_clock;
using json::Json;

double millisecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

std::string format(const char* pattern, double value) {
    char text[64];
    std::snprintf(text, sizeof text, pattern, value);
    return text;
}

double mibPerSecond(double bytes, double seconds) {
    return seconds > 0 ? bytes / (seconds * 1024 * 1024) : 0;
}

// The outcome of one throughput measurement; -1.0 from the service means it has no file
// provider to measure against.
int reportThroughput(const Output& out, const char* what, std::uint64_t chunkSize,
                     std::uint64_t chunkCount, double seconds) {
    if (seconds < 0) {
        return fail(std::string(what) +
                    ": no file provider answered (register one, e.g. with --role fileprovider)");
    }
    const double bytes = static_cast<double>(chunkSize) * static_cast<double>(chunkCount);
    const double rate = mibPerSecond(bytes, seconds);
    if (out.json) {
        printJson({{"chunkSize", chunkSize},
                   {"chunkCount", chunkCount},
                   {"seconds", seconds},
                   {"mibPerSecond", rate}});
    } else {
        std::cout << what << ": " << chunkCount << " chunks of " << chunkSize << " bytes in "
                  << format("%.3f", seconds) << " s (" << format("%.2f", rate) << " MiB/s)"
                  << std::endl;
    }
    return kExitOk;
}

std::optional<Bytes> readBody(const std::string& path) {
    if (path == "-") {
        return Bytes(std::istreambuf_iterator<char>(std::cin), {});
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return std::nullopt;
    }
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

// The service's speed-test report ("UDID: ...", "RTT: 1.23 ms", "Download: 9.87 MiB/s (...)",
// "Upload: ...") as named numbers; a line that does not parse is left out.
Json speedTestFields(const std::string& report) {
    Json fields{{"ok", true}};
    std::istringstream lines(report);
    for (std::string line; std::getline(lines, line);) {
        const auto colon = line.find(": ");
        if (colon == std::string::npos) {
            continue;
        }
        const auto key = line.substr(0, colon);
        const auto value = line.substr(colon + 2);
        if (key == "UDID") {
            fields["udid"] = value;
            continue;
        }
        double number = 0;
        if (std::sscanf(value.c_str(), "%lf", &number) != 1) {
            continue;
        }
        if (key == "RTT") {
            fields["rttSeconds"] = number / 1000;
        } else if (key == "Download") {
            fields["downloadMiBPerSecond"] = number;
        } else if (key == "Upload") {
            fields["uploadMiBPerSecond"] = number;
        }
    }
    return fields;
}

bool stopRequested() {
    sigset_t pending;
    sigemptyset(&pending);
    if (sigpending(&pending) != 0) {
        return false;
    }
    return sigismember(&pending, SIGINT) == 1 || sigismember(&pending, SIGTERM) == 1 ||
           sigismember(&pending, SIGHUP) == 1;
}

// Large bodies skip the bus message, which would copy them through the bus daemon twice.
service::dbus::HarborClient::RelayReply sendRelay(service::dbus::HarborClient& client,
                                                  std::int64_t selector, Bytes body) {
    if (body.size() <= kSharedRelayBytes) {
        return client.relayToUsbMux(selector, std::move(body));
    }
    try {
        service::dbus::SharedRelayBuffer buffer(client);
        return buffer.relay(selector, body);
    } catch (const std::system_error&) {
        // No shared memory to be had here: the bus message carries the body too, only slower.
    }
    return client.relayToUsbMux(selector, std::move(body));
}

}  // namespace

int runVersion(CtlSession& session, const Output& out) {
    const auto version = session.client().getXPCServiceVersion();
    if (out.json) {
        printJson({{"version", version}});
    } else {
        std::cout << version << std::endl;
    }
    return kExitOk;
}

int runPing(CtlSession& session, const Output& out, std::int64_t role) {
    const auto start = Clock::now();
    const bool ok = session.client().ping(role);
    const double ms = millisecondsSince(start);
    if (out.json) {
        printJson({{"role", role}, {"ok", ok}, {"seconds", ms / 1000}});
    } else {
        std::cout << "ping " << roleName(role) << ": " << (ok ? "yes" : "no") << " ("
                  << format("%.3f", ms) << " ms)" << std::endl;
    }
    return ok ? kExitOk : kExitFailed;
}

int runEcho(CtlSession& session, const Output& out, std::uint64_t count) {
    std::vector<double> times;
    for (std::uint64_t i = 0; i < count; ++i) {
        const auto start = Clock::now();
        session.client().echo();
        times.push_back(millisecondsSince(start));
    }
    std::sort(times.begin(), times.end());
    const double median = times[times.size() / 2];
    if (out.json) {
        printJson({{"count", times.size()},
                   {"minSeconds", times.front() / 1000},
                   {"medianSeconds", median / 1000},
                   {"maxSeconds", times.back() / 1000}});
    } else if (times.size() == 1) {
        std::cout << "echo: " << format("%.3f", median) << " ms" << std::endl;
    } else {
        std::cout << "echo: " << times.size() << " round trips, min "
                  << format("%.3f", times.front()) << " ms, median " << format("%.3f", median)
                  << " ms, max " << format("%.3f", times.back()) << " ms" << std::endl;
    }
    return kExitOk;
}

int runSpeedTest(CtlSession& session, const Output& out) {
    const auto [ok, text] = session.client().runUsbMuxSpeedTest();
    if (out.json) {
        printJson(ok ? speedTestFields(text) : Json{{"ok", false}, {"message", text}});
    } else {
        (ok ? std::cout : std::cerr) << text << std::endl;
    }
    return ok ? kExitOk : kExitFailed;
}

int runLookup(CtlSession& session, const Output& out, const std::string& identifier,
              const std::string& source) {
    relay::RelayLookupRequest request{identifier, relay::RelayLookupSource::fsGetAttributes};
    if (const auto parsed = json::enumFromText<relay::RelayLookupSource>(source)) {
        request.source = *parsed;
    } else {
        return fail("unknown look-up source \"" + source + "\"", kExitUsage);
    }
    auto body = json::encode(request);
    if (!body) {
        return fail("the identifier is not valid UTF-8", kExitUsage);
    }
    const auto reply = session.client().relayToUsbMux(
        static_cast<std::int64_t>(relay::UsbMuxRelaySelector::lookupItem), std::move(*body));
    if (reply.status != 0) {
        if (out.json) {
            printJson({{"status", reply.status}, {"detail", reply.code}});
        }
        return fail("look-up of \"" + identifier + "\": " +
                    relayFailureWords(reply.status, failureCode(session, reply),
                                      relay::UsbMuxRelaySelector::lookupItem));
    }
    const auto summary = json::decode<relay::RelayItemSummary>(reply.response);
    if (!summary) {
        return fail("the app's answer is not an item summary: " + printableBody(reply.response));
    }
    if (out.json) {
        printJson(json::toJson(*summary));
    } else {
        std::cout << describeSummary(*summary) << std::flush;
    }
    return kExitOk;
}

int runRelay(CtlSession& session, const Output& out, std::int64_t selector,
             const std::optional<std::string>& bodyPath,
             const std::optional<std::string>& outputPath) {
    Bytes body;
    if (bodyPath) {
        auto read = readBody(*bodyPath);
        if (!read) {
            return fail("cannot read " + *bodyPath, kExitBadInput);
        }
        body = std::move(*read);
    }
    const auto reply = sendRelay(session.client(), selector, std::move(body));
    if (outputPath) {
        std::ofstream file(*outputPath, std::ios::binary | std::ios::trunc);
        file.write(reinterpret_cast<const char*>(reply.response.data()),
                   static_cast<std::streamsize>(reply.response.size()));
        if (!file) {
            return fail("cannot write " + *outputPath, kExitBadInput);
        }
    }
    if (out.json) {
        printJson({{"status", reply.status},
                   {"code", reply.code},
                   {"size", reply.response.size()},
                   {"body", embeddedBody(reply.response)}});
    } else {
        std::cout << describeRelayOutcome(reply.status, reply.code) << ", " << reply.response.size()
                  << " bytes" << std::endl;
        if (!outputPath && !reply.response.empty()) {
            std::cout << printableBody(reply.response) << std::endl;
        }
    }
    return reply.status == 0 ? kExitOk : kExitFailed;
}

int runWatch(CtlSession& session, const WatchOptions& options) {
    session.observe();
    // Asked once the matches are in place: any change after the answer arrives as an event,
    // and presence events that only repeat what is known are skipped.
    bool running = session.client().serviceRunning();
    std::cout << serviceLine(running) << std::endl;
    if (!running) {
        if (options.exitOnLoss) {
            return fail("skiffd is not running", kExitUnreachable);
        }
        std::cerr << "skiffctl: skiffd is not running; waiting for it" << std::endl;
    }
    std::uint64_t printed = 0;
    // The exit status once the event ends the watch.
    auto handle = [&](const WatchEvent& event) -> std::optional<int> {
        if (const auto* n = std::get_if<Notification>(&event)) {
            std::cout << notificationLine(n->message, n->param) << std::endl;
            if (++printed == options.count) {
                return kExitOk;
            }
        } else if (const auto* other = std::get_if<EventLine>(&event)) {
            std::cout << other->line << std::endl;
        } else if (const auto* device = std::get_if<DeviceEvent>(&event)) {
            std::cout << deviceLine(device->udid, device->attached) << std::endl;
        } else if (const auto* presence = std::get_if<ServicePresence>(&event)) {
            if (presence->running == running) {
                return std::nullopt;
            }
            running = presence->running;
            std::cout << serviceLine(running) << std::endl;
            if (running) {
                std::cerr << "skiffctl: skiffd is running; watching it" << std::endl;
            } else if (options.exitOnLoss) {
                return fail("skiffd went away", kExitUnreachable);
            } else {
                std::cerr << "skiffctl: skiffd went away; waiting for it" << std::endl;
            }
        } else {
            return fail("the bus connection was lost", kExitUnreachable);
        }
        return std::nullopt;
    };
    for (;;) {
        // The short wait only bounds how late a stop signal is noticed.
        for (const auto& event : session.takeEvents(std::chrono::milliseconds(100))) {
            if (const auto status = handle(event)) {
                return *status;
            }
        }
        if (stopRequested()) {
            return kExitOk;
        }
    }
}

int runIngest(CtlSession& session, const Output& out, std::uint64_t bytes) {
    const auto start = Clock::now();
    const auto received = session.client().benchmarkIngest(Bytes(bytes, 0));
    const double seconds = millisecondsSince(start) / 1000;
    if (out.json) {
        printJson({{"bytes", bytes},
                   {"byteCount", received},
                   {"seconds", seconds},
                   {"mibPerSecond", mibPerSecond(static_cast<double>(bytes), seconds)}});
    } else {
        std::cout << "ingest: the service took " << received << " of " << bytes << " bytes in "
                  << format("%.3f", seconds * 1000) << " ms ("
                  << format("%.2f", mibPerSecond(static_cast<double>(bytes), seconds)) << " MiB/s)"
                  << std::endl;
    }
    return received == bytes ? kExitOk : kExitFailed;
}

int runHostToExt(CtlSession& session, const Output& out, std::uint64_t chunkSize,
                 std::uint64_t chunkCount) {
    const double seconds = session.client().requestHostToExtThroughput(chunkSize, chunkCount);
    return reportThroughput(out, "host-to-ext", chunkSize, chunkCount, seconds);
}

int runExtToHostPing(CtlSession& session, const Output& out, std::int64_t value) {
    const double seconds = session.client().requestExtToHostPing(value);
    if (seconds < 0) {
        return fail("ext-to-host ping: no file provider answered, or its ping was refused");
    }
    if (out.json) {
        printJson({{"value", value}, {"seconds", seconds}});
    } else {
        std::cout << "ext-to-host ping: " << format("%.3f", seconds * 1000) << " ms" << std::endl;
    }
    return kExitOk;
}

int runExtToHost(CtlSession& session, const Output& out, std::uint64_t chunkSize,
                 std::uint64_t chunkCount) {
    const double seconds = session.client().requestExtToHostThroughput(chunkSize, chunkCount);
    return reportThroughput(out, "ext-to-host", chunkSize, chunkCount, seconds);
}

}  // namespace skiff::ctl
