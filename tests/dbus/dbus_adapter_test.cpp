// The adapter under a private bus: a fake core (delegate and host objects) on the service
// side, HarborClient on the other.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <future>
#include <limits>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "common/run_sync.hpp"
#include "common/runtime.hpp"
#include "dbus/support/test_bus.hpp"
#include "service/dbus/bus_names.hpp"
#include "service/dbus/harbor_client.hpp"
#include "service/dbus/service_adapter.hpp"

namespace skiff::service::dbus {
namespace {

constexpr auto kWait = std::chrono::seconds(20);

// A bounded wait for something another thread does.
class Events {
public:
    void note(const std::string& what) {
        std::lock_guard guard(mutex_);
        ++counts_[what];
        changed_.notify_all();
    }
    int count(const std::string& what) {
        std::lock_guard guard(mutex_);
        return counts_[what];
    }
    bool waitFor(const std::string& what, int atLeast = 1) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kWait, [&] { return counts_[what] >= atLeast; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::string, int> counts_;
};

constexpr std::int64_t kMinI = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kMaxI = std::numeric_limits<std::int64_t>::max();
constexpr std::uint64_t kMaxU = std::numeric_limits<std::uint64_t>::max();

Bytes allByteValues() {
    Bytes bytes;
    for (int i = 0; i < 256; ++i) {
        bytes.push_back(static_cast<std::uint8_t>(255 - i));
    }
    return bytes;
}

// Answers from its arguments so that a test can tell each value made the round trip.
class FakeHost final : public HarborBridgeHostProtocol {
public:
    explicit FakeHost(Events& events) : events_(events) {}
    ~FakeHost() override {
        for (auto& worker : workers_) {
            worker.join();
        }
    }

    void registerClient(std::int64_t role, std::function<void(bool)> reply) override {
        events_.note("registerClient");
        reply(role == kMinI);
    }
    void getXPCServiceVersion(std::function<void(std::int64_t)> reply) override { reply(kMaxI); }
    void echo(std::function<void()> reply) override {
        events_.note("echo");
        reply();
    }
    void ping(std::int64_t value, std::function<void(bool)> reply) override { reply(value == -7); }
    void benchmarkIngest(Bytes data, std::function<void(std::uint64_t)> reply) override {
        reply(data == allByteValues() ? kMaxU : 0);
    }
    void requestHostToExtThroughput(std::uint64_t chunkSize, std::uint64_t chunkCount,
                                    std::function<void(double)> reply) override {
        reply(chunkSize == kMaxU && chunkCount == 0 ? -1.5e300 : 0.0);
    }
    void requestExtToHostPing(std::int64_t, std::function<void(double)> reply) override {
        std::lock_guard guard(mutex_);
        heldPing = std::move(reply);
        events_.note("pingHeld");
    }
    void requestExtToHostThroughput(std::uint64_t, std::uint64_t,
                                    std::function<void(double)> reply) override {
        std::lock_guard guard(mutex_);
        heldThroughput = std::move(reply);  // never answered
    }
    void runUsbMuxSpeedTest(std::function<void(bool, std::string)> reply) override {
        reply(true, "RTT: 1.00 ms — ok\n");
    }
    void relayToUsbMux(std::int64_t selector, Bytes param,
                       std::function<void(Bytes, std::int64_t, std::int64_t)> reply) override {
        reply(Bytes(param.rbegin(), param.rend()), selector, -selector);
    }
    void requestFileIO(std::int64_t operation, Bytes param,
                       std::function<void(Bytes, std::int64_t)> reply) override {
        // Answered from a worker, as the core does for anything that waits.
        std::lock_guard guard(mutex_);
        workers_.emplace_back([operation, param = std::move(param), reply]() mutable {
            param.push_back(static_cast<std::uint8_t>(operation));
            reply(std::move(param), kMinI);
        });
    }
    void filesystemDidUnmount() override { events_.note("unmount"); }
    void shutdown(std::function<void(bool)>) override {
        throw NotSupported("shutdown is not offered");
    }

    std::function<void(double)> takePing() {
        std::lock_guard guard(mutex_);
        return std::move(heldPing);
    }

private:
    Events& events_;
    std::mutex mutex_;
    std::function<void(double)> heldPing;
    std::function<void(double)> heldThroughput;
    std::vector<std::thread> workers_;
};

class FakeDelegate final : public ListenerDelegate {
public:
    explicit FakeDelegate(Events& events) : events_(events) {}

    bool shouldAcceptNewConnection(const std::shared_ptr<ClientConnection>& connection) override {
        if (refuse) {
            return false;
        }
        auto host = std::make_shared<FakeHost>(events_);
        connection->setExportedObject(host);
        const int index = static_cast<int>(accepted.size());
        // Holding the connection, as the core's handler does.
        connection->setInvalidationHandler(
            [this, index, connection] { events_.note("invalidated" + std::to_string(index)); });
        std::lock_guard guard(mutex_);
        accepted.push_back(connection);
        hosts.push_back(host);
        events_.note("accepted");
        return true;
    }

    std::shared_ptr<ClientConnection> connection(std::size_t i) {
        std::lock_guard guard(mutex_);
        return accepted.at(i);
    }
    std::shared_ptr<FakeHost> host(std::size_t i) {
        std::lock_guard guard(mutex_);
        return hosts.at(i);
    }

    bool refuse = false;

private:
    Events& events_;
    std::mutex mutex_;
    std::vector<std::shared_ptr<ClientConnection>> accepted;
    std::vector<std::shared_ptr<FakeHost>> hosts;
};

// A client's own object: answers, and records notifications.
class FakeClient final : public HarborBridgeClientProtocol {
public:
    explicit FakeClient(Events& events) : events_(events) {}

    void echo(std::function<void()> reply) override { reply(); }
    void benchmarkIngest(Bytes data, std::function<void(std::uint64_t)> reply) override {
        reply(data.size());
    }
    void runExtToHostPing(std::int64_t value, std::function<void(double)> reply) override {
        // From another thread, as a real client doing work would.
        std::thread([value, reply] { reply(static_cast<double>(value) / 4); }).detach();
    }
    void benchmarkSendChunks(std::uint64_t, std::uint64_t, std::function<void(double)>) override {
        throw NotSupported("no chunks here");
    }
    void notifyClient(std::int64_t message, Bytes param) override {
        std::lock_guard guard(mutex_);
        notices.emplace_back(message, std::move(param));
        events_.note("notice");
    }

    std::mutex mutex_;
    std::vector<std::pair<std::int64_t, Bytes>> notices;

private:
    Events& events_;
};

class DbusAdapterTest : public ::testing::Test {
protected:
    void SetUp() override {
        service.start([] { ADD_FAILURE() << "bus lost"; });
    }

    std::unique_ptr<HarborClient> client(
        std::shared_ptr<HarborBridgeClientProtocol> exported = {}) {
        return std::make_unique<HarborClient>(std::move(exported), bus.address());
    }

    ServiceAdapter::Options options(std::chrono::milliseconds deadline = std::chrono::seconds(25)) {
        return {bus.address(), deadline};
    }

    testing::TestBus bus;
    runtime::IoRuntime runtime{2};
    bool started = (runtime.start(), true);
    Events events;
    std::shared_ptr<FakeDelegate> delegate = std::make_shared<FakeDelegate>(events);
    ServiceAdapter service{runtime.executor(), delegate, options()};
};

TEST_F(DbusAdapterTest, ArgumentsRepliesAndErrorsCrossTheBusIntact) {
    auto caller = client();
    EXPECT_TRUE(caller->registerClient(kMinI));
    EXPECT_FALSE(caller->registerClient(0));
    EXPECT_EQ(caller->getXPCServiceVersion(), kMaxI);
    caller->echo();
    EXPECT_TRUE(caller->ping(-7));
    EXPECT_EQ(caller->benchmarkIngest(allByteValues()), kMaxU);
    EXPECT_EQ(caller->requestHostToExtThroughput(kMaxU, 0), -1.5e300);
    EXPECT_EQ(caller->runUsbMuxSpeedTest(),
              std::make_pair(true, std::string("RTT: 1.00 ms — ok\n")));

    const auto relay = caller->relayToUsbMux(kMaxI, Bytes{0, 1, 2, 0});
    EXPECT_EQ(relay.response, (Bytes{0, 2, 1, 0}));
    EXPECT_EQ(relay.status, kMaxI);
    EXPECT_EQ(relay.code, -kMaxI);
    EXPECT_TRUE(caller->relayToUsbMux(0, Bytes{}).response.empty());

    // Larger than a socket buffer both ways, and answered from another thread.
    Bytes large(5 * 1024 * 1024, 0xab);
    large.front() = 1;
    const auto bulk = caller->requestFileIO(2, large);
    large.push_back(2);
    EXPECT_EQ(bulk.response, large);
    EXPECT_EQ(bulk.status, kMinI);

    caller->filesystemDidUnmount();  // one-way
    EXPECT_TRUE(events.waitFor("unmount"));

    // The host's refusal arrives as the named bus error, its text intact.
    try {
        caller->shutdown();
        FAIL() << "shutdown returned";
    } catch (const BusError& e) {
        EXPECT_EQ(e.name(), kErrorNotSupported);
        EXPECT_EQ(e.message(), "shutdown is not offered");
    }
}

TEST_F(DbusAdapterTest, ReplyFromAnotherThreadArrivesAndUnansweredCallStaysPending) {
    auto caller = client();
    std::thread answerer([&] {
        ASSERT_TRUE(events.waitFor("pingHeld"));
        delegate->host(0)->takePing()(0.125);
    });
    EXPECT_EQ(caller->requestExtToHostPing(1), 0.125);
    answerer.join();

    // Never answered: the caller's own time-out ends it, never a made-up reply.
    caller->setCallTimeout(std::chrono::seconds(1));
    EXPECT_THROW(caller->requestExtToHostThroughput(1, 1), BusError);
}

TEST_F(DbusAdapterTest, EachPeerHasItsOwnHostAndOnlyTheLeaverIsInvalidated) {
    auto first = client();
    auto second = client();
    first->echo();
    first->echo();
    second->echo();
    ASSERT_EQ(events.count("accepted"), 2);
    EXPECT_NE(delegate->connection(0)->exportedObject(), delegate->connection(1)->exportedObject());

    first.reset();
    ASSERT_TRUE(events.waitFor("invalidated0"));
    second->echo();  // still served, by the same host
    EXPECT_EQ(events.count("accepted"), 2);
    EXPECT_EQ(events.count("echo"), 4);
    EXPECT_EQ(events.count("invalidated0"), 1);
    EXPECT_EQ(events.count("invalidated1"), 0);
}

TEST_F(DbusAdapterTest, RefusedPeerIsDeniedAndNeverServed) {
    delegate->refuse = true;
    auto caller = client();
    try {
        caller->echo();
        FAIL() << "echo was served";
    } catch (const BusError& e) {
        EXPECT_EQ(e.name(), kErrorAccessDenied);
    }
    EXPECT_EQ(events.count("echo"), 0);
}

TEST_F(DbusAdapterTest, SecondServiceCannotTakeTheName) {
    EXPECT_THROW(ServiceAdapter(runtime.executor(), delegate, options()), BusError);
}

TEST_F(DbusAdapterTest, ServiceCallsTheClientAndReportsAClientThatLeft) {
    auto exported = std::make_shared<FakeClient>(events);
    auto caller = client(exported);
    caller->echo();
    auto connection = delegate->connection(0);

    std::mutex mutex;
    std::vector<std::string> errors;
    auto proxy = connection->remoteObjectProxy([&](const ClientCallFailure& failure) {
        {
            std::lock_guard guard(mutex);
            errors.push_back(failure.text);
        }
        events.note("clientError");
    });
    std::promise<double> elapsed;
    std::promise<std::uint64_t> ingested;
    auto elapsedSoon = elapsed.get_future();
    auto ingestedSoon = ingested.get_future();
    proxy->runExtToHostPing(-10, [&](double value) { elapsed.set_value(value); });
    proxy->benchmarkIngest(allByteValues(), [&](std::uint64_t n) { ingested.set_value(n); });
    proxy->benchmarkSendChunks(1, 1, [](double) { ADD_FAILURE() << "reply after an error"; });
    proxy->notifyClient(kMaxI, Bytes{'{', '}'});
    ASSERT_TRUE(skiff::testing::readyInTime(elapsedSoon));
    ASSERT_TRUE(skiff::testing::readyInTime(ingestedSoon));
    EXPECT_EQ(elapsedSoon.get(), -2.5);
    EXPECT_EQ(ingestedSoon.get(), 256u);
    ASSERT_TRUE(events.waitFor("clientError"));
    {
        std::lock_guard guard(mutex);
        EXPECT_NE(errors.at(0).find(kErrorNotSupported), std::string::npos);
    }
    ASSERT_TRUE(events.waitFor("notice"));
    {
        std::lock_guard guard(exported->mutex_);
        EXPECT_EQ(exported->notices.at(0), std::make_pair(kMaxI, Bytes{'{', '}'}));
    }

    caller.reset();
    ASSERT_TRUE(events.waitFor("invalidated0"));
    std::atomic<bool> replied = false;
    proxy->echo([&] { replied = true; });
    ASSERT_TRUE(events.waitFor("clientError", 2));
    EXPECT_FALSE(replied);
}

}  // namespace
}  // namespace skiff::service::dbus
