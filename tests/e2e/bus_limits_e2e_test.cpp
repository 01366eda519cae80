// What no client, and no phone, can do to skiffd: stop it with a bad value, wedge it with
// a call it never answers, grow it without bound, or leave it half alive without a bus.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <iostream>
#include <optional>
#include <string>

#include "common/run_sync.hpp"
#include "dbus/support/bus_errors.hpp"
#include "e2e/service_stack.hpp"
#include "service/dbus/bus_names.hpp"
#include "service/dbus/shared_relay.hpp"

namespace skiff::test {
namespace {

using service::dbus::BusError;
using service::dbus::HarborClient;
using service::dbus::kErrorInvalidArgs;
using skiff::testing::busErrorOf;

constexpr std::int64_t kFileProvider = 0;
constexpr std::int64_t kDesktopApp = 1;
constexpr std::int64_t kLookup = 2;
constexpr std::uint64_t kBusArrayLimit = 64ull * 1024 * 1024;

// Sanitizers multiply memory; the bound is the product's only in a plain build.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::uint64_t kMemoryBound = 1024ull * 1024 * 1024;
#else
constexpr std::uint64_t kMemoryBound = 64ull * 1024 * 1024;
#endif

// A file provider that never answers the calls it is made to wait on, and counts the rest.
class SilentExtension final : public service::HarborBridgeClientProtocol {
public:
    void echo(std::function<void()>) override {}
    void runExtToHostPing(std::int64_t, std::function<void(double)>) override {}
    void benchmarkIngest(Bytes, std::function<void(std::uint64_t)> reply) override {
        ++ingested;
        reply(0);
    }
    void benchmarkSendChunks(std::uint64_t, std::uint64_t, std::function<void(double)>) override {}
    void notifyClient(std::int64_t, Bytes param) override { notifiedBytes += param.size(); }

    std::atomic<std::uint64_t> ingested{0};
    std::atomic<std::uint64_t> notifiedBytes{0};
};

// A SilentExtension registered as the file provider, and a desktop app once the phone is there.
struct SilentStack {
    explicit SilentStack(std::vector<std::string> skiffdArgs = {})
        : stack(writeNotes, std::move(skiffdArgs)), extension(stack.connect(silent)) {
        if (!extension->registerClient(kFileProvider)) {
            throw std::runtime_error("the service refused the file provider");
        }
        desktop = registerWithPhone(stack, kDesktopApp);
    }
    std::shared_ptr<SilentExtension> silent = std::make_shared<SilentExtension>();
    ServiceStack stack;
    std::unique_ptr<HarborClient> extension;
    RegisteredClient desktop;
};

TEST(BusLimitsE2eTest, NoCallerCanStopOrWedgeTheService) {
    SilentStack silentStack({"--client-deadline-ms", "2000"});
    auto& [silent, stack, extension, desktop] = silentStack;
    auto& client = *desktop.client;
    {
        SCOPED_TRACE("mistakes");
        for (std::int64_t selector : {std::int64_t{65536}, std::int64_t{-1}}) {
            EXPECT_EQ(busErrorOf([&] { client.relayToUsbMux(selector, lookupBody("")); }),
                      kErrorInvalidArgs)
                << selector;
        }
        EXPECT_EQ(busErrorOf([&] { client.requestHostToExtThroughput(kBusArrayLimit + 1, 1); }),
                  kErrorInvalidArgs);
        EXPECT_EQ(busErrorOf([&] { client.requestExtToHostThroughput(kBusArrayLimit + 1, 1); }),
                  kErrorInvalidArgs);
        EXPECT_EQ(busErrorOf([&] { client.requestFileIO(4, {}); }), kErrorInvalidArgs);

        // Alive and relaying, over the bus and through shared memory alike.
        const auto plain = client.relayToUsbMux(kLookup, lookupBody("Documents/notes.txt"));
        EXPECT_EQ(plain.status, 0);
        service::dbus::SharedRelayBuffer shared(client);
        const auto viaMemory = shared.relay(kLookup, lookupBody("Documents/notes.txt"));
        EXPECT_EQ(viaMemory.status, 0);
        EXPECT_EQ(viaMemory.response, plain.response);
        EXPECT_EQ(shared.relay(kLookup, Bytes(service::kMaxRelayBodyBytes + 1, 'x')).status, 7);
    }
    {
        SCOPED_TRACE("calls the extension never answers end at the deadline");
        EXPECT_FALSE(client.ping(kFileProvider));
        EXPECT_EQ(client.requestExtToHostPing(1), -1.0);
        EXPECT_EQ(client.requestExtToHostThroughput(1, 1), -1.0);
        EXPECT_TRUE(stack.service().waitForOutput("did not answer in time", kE2eWait));
    }
    {
        SCOPED_TRACE("a measurement loop whose caller leaves");
        {
            // The proxy holds the connection: it goes first, as it would in a client.
            auto host = client.host([](const BusError&) {});
            host->requestHostToExtThroughput(1024, 9'000'000'000'000'000'000ull, [](double) {});
            ASSERT_TRUE(skiff::testing::eventually([&] { return silent->ingested >= 10; }));
        }
        desktop.client.reset();
        EXPECT_TRUE(stack.service().waitForOutput("stopped: its caller left", kE2eWait))
            << stack.service().output();
    }
    EXPECT_FALSE(stack.service().waitForExit({}));
}

TEST(BusLimitsE2eTest, APushFloodNeitherGrowsTheServiceNorStopsItAnswering) {
    SilentStack silentStack;
    auto& [silent, stack, extension, desktop] = silentStack;
    // The relay tunnel carries the pushes: open it with one request.
    desktop.client->relayToUsbMux(kLookup, lookupBody(""));
    ASSERT_EQ(stack.phone().command("flood 2 1048576 8").lines, std::vector<std::string>{"1"});
    auto echoer = stack.connect();
    echoer->setCallTimeout(std::chrono::seconds(20));
    int echoes = 0;
    const auto start = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - start < std::chrono::seconds(8)) {
        echoer->echo();  // throws when it stops answering
        ++echoes;
    }
    EXPECT_GT(silent->notifiedBytes, 0u);
    const auto peak = stack.service().peakResidentBytes();
    std::cerr << "skiffd peak resident memory: " << peak / 1024 << " KiB, " << echoes
              << " echoes\n";
    EXPECT_LT(peak, kMemoryBound);
}

TEST(BusLimitsE2eTest, AStopSignalEndsTheServiceCleanlyAndALostBusWithFailure) {
    for (const bool busLost : {false, true}) {
        SCOPED_TRACE(busLost ? "bus lost" : "SIGTERM");
        ServiceStack stack;
        if (busLost) {
            stack.bus().kill();
        }
        const auto status = busLost ? stack.service().waitForExit(kE2eWait)
                                    : std::optional<int>(stack.service().stop());
        ASSERT_TRUE(status);
        ASSERT_TRUE(WIFEXITED(*status)) << stack.service().output();
        EXPECT_EQ(WEXITSTATUS(*status), busLost ? 1 : 0) << stack.service().output();
    }
}

}  // namespace
}  // namespace skiff::test
