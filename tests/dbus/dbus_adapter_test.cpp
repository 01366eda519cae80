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
#include <tuple>
#include <vector>

#include <expat.h>
#include <sys/mman.h>
#include <systemd/sd-bus.h>
#include <unistd.h>
#include "common/run_sync.hpp"

#include "common/io_runtime.hpp"
#include "common/shared_memory.hpp"
#include "dbus/support/bus_errors.hpp"
#include "dbus/support/test_bus.hpp"
#include "service/dbus/bus_connection.hpp"
#include "service/dbus/bus_names.hpp"
#include "service/dbus/harbor_client.hpp"
#include "service/dbus/notice_queue.hpp"
#include "service/dbus/service_adapter.hpp"
#include "support/file_text.hpp"

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

using skiff::test::readFile;
using skiff::testing::busErrorOf;

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
    void relayToUsbMux(std::int64_t selector, SharedBytes param,
                       std::function<void(Bytes, std::int64_t, std::int64_t)> reply) override {
        if (selector < 0) {
            throw InvalidArgs("negative selector");
        }
        events_.note("relay");
        reply(Bytes(param.span().rbegin(), param.span().rend()), selector, -selector);
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
    void postVolumeNotice(std::string text) override { events_.note("notice " + text); }
    void shutdown(std::function<void(bool)>) override {
        throw NotSupported("shutdown is not offered");
    }
    void mountVolume(std::function<void(bool, std::string)> reply) override {
        reply(false, "mount refused");
    }
    void unmountVolume(bool force, std::function<void(bool, std::string)> reply) override {
        reply(force, force ? "" : "busy");
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

    std::atomic<bool> refuse{false};

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

    void echo(std::function<void()> reply) override {
        if (!silent) {
            reply();
        }
    }
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
    std::atomic<bool> silent{false};

private:
    Events& events_;
};

// Keeps the observer the adapter attaches, for a test to speak through.
struct OneObserver final : ObserverHub {
    void attach(std::shared_ptr<BridgeObserver> o) override { observer = std::move(o); }
    void detach(const BridgeObserver*) override { observer = nullptr; }
    std::shared_ptr<BridgeObserver> observer;
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

    // Short enough for a test to wait out, long enough for any answering client.
    ServiceAdapter::Options options() { return {bus.address(), std::chrono::seconds(3)}; }

    testing::TestBus bus;
    runtime::IoRuntime runtime{2};
    bool started = (runtime.start(), true);
    Events events;
    std::shared_ptr<FakeDelegate> delegate = std::make_shared<FakeDelegate>(events);
    std::shared_ptr<OneObserver> hub = std::make_shared<OneObserver>();
    ServiceAdapter service{runtime.executor(), delegate, hub, options()};
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

    EXPECT_EQ(caller->mountVolume(), std::make_pair(false, std::string("mount refused")));
    EXPECT_EQ(caller->unmountVolume(true), std::make_pair(true, std::string()));
    EXPECT_EQ(caller->unmountVolume(false), std::make_pair(false, std::string("busy")));

    caller->filesystemDidUnmount();  // one-way
    EXPECT_TRUE(events.waitFor("unmount"));
    caller->postVolumeNotice("kept a copy");  // one-way
    EXPECT_TRUE(events.waitFor("notice kept a copy"));

    // The host's refusal arrives as the named bus error, its text intact.
    try {
        caller->shutdown();
        FAIL() << "shutdown returned";
    } catch (const BusError& e) {
        EXPECT_EQ(e.name(), kErrorNotSupported);
        EXPECT_EQ(e.message(), "shutdown is not offered");
    }
    // A caller's mistake is InvalidArgs, and the adapter goes on serving.
    EXPECT_EQ(busErrorOf([&] { caller->relayToUsbMux(-1, {}); }), kErrorInvalidArgs);
    caller->echo();
    EXPECT_TRUE(events.waitFor("echo", 2));

    // A reply from another thread arrives; one never given leaves the call to the caller's
    // own time-out, never to a made-up reply.
    std::thread answerer([&] {
        ASSERT_TRUE(events.waitFor("pingHeld"));
        delegate->host(0)->takePing()(0.125);
    });
    EXPECT_EQ(caller->requestExtToHostPing(1), 0.125);
    answerer.join();
    caller->setCallTimeout(std::chrono::seconds(1));
    EXPECT_THROW(caller->requestExtToHostThroughput(1, 1), BusError);
}

TEST_F(DbusAdapterTest, EachPeerHasItsOwnHostOnlyTheLeaverIsInvalidatedAndRefusedOnesNone) {
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

    delegate->refuse = true;
    EXPECT_EQ(busErrorOf([&] { client()->echo(); }), kErrorAccessDenied);
    EXPECT_EQ(events.count("echo"), 4);
    // The bus name has one owner.
    EXPECT_THROW(ServiceAdapter(runtime.executor(), delegate, hub, options()), BusError);
}

TEST_F(DbusAdapterTest, ServiceCallsTheClientAndReportsAClientThatLeft) {
    auto exported = std::make_shared<FakeClient>(events);
    auto caller = client(exported);
    caller->echo();
    auto connection = delegate->connection(0);

    std::mutex mutex;
    std::vector<ClientCallFailure> errors;
    auto proxy = connection->remoteObjectProxy([&](const ClientCallFailure& failure) {
        {
            std::lock_guard guard(mutex);
            errors.push_back(failure);
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
    ASSERT_TRUE(events.waitFor("notice"));
    {
        std::lock_guard guard(exported->mutex_);
        EXPECT_EQ(exported->notices.at(0), std::make_pair(kMaxI, Bytes{'{', '}'}));
    }

    // A client that lets the deadline pass is reported late; one that left, as gone.
    exported->silent = true;
    proxy->echo([] { ADD_FAILURE() << "a silent client answered"; });
    ASSERT_TRUE(events.waitFor("clientError", 2));
    caller.reset();
    ASSERT_TRUE(events.waitFor("invalidated0"));
    proxy->echo([] { ADD_FAILURE() << "a client that left answered"; });
    ASSERT_TRUE(events.waitFor("clientError", 3));
    std::lock_guard guard(mutex);
    EXPECT_NE(errors.at(0).text.find(kErrorNotSupported), std::string::npos);
    EXPECT_FALSE(errors.at(0).deadlinePassed);
    EXPECT_TRUE(errors.at(1).deadlinePassed);
    EXPECT_FALSE(errors.at(2).deadlinePassed);
}

// The members of one interface as introspection data lists them: one line per method,
// signal, argument and annotation, in document order.
std::vector<std::string> interfaceShape(const std::string& xml, const std::string& interface) {
    struct State {
        std::string wanted;
        bool inside = false;
        std::vector<std::string> lines;
    } state{interface, false, {}};
    XML_Parser parser = XML_ParserCreate(nullptr);
    XML_SetUserData(parser, &state);
    XML_SetElementHandler(
        parser,
        [](void* data, const XML_Char* name, const XML_Char** attributes) {
            auto& st = *static_cast<State*>(data);
            std::map<std::string, std::string> attrs;
            for (int i = 0; attributes[i] != nullptr; i += 2) {
                attrs[attributes[i]] = attributes[i + 1];
            }
            const std::string element = name;
            if (element == "interface") {
                st.inside = attrs["name"] == st.wanted;
            } else if (st.inside) {
                std::string line = element;
                for (const auto& [key, value] : attrs) {
                    line += " " + key + "=" + value;
                }
                st.lines.push_back(line);
            }
        },
        [](void* data, const XML_Char* name) {
            if (std::string(name) == "interface") {
                static_cast<State*>(data)->inside = false;
            }
        });
    EXPECT_EQ(XML_Parse(parser, xml.data(), static_cast<int>(xml.size()), 1), XML_STATUS_OK)
        << XML_ErrorString(XML_GetErrorCode(parser));
    XML_ParserFree(parser);
    return state.lines;
}

std::string introspect(const std::string& address, const char* destination, const char* path) {
    sd_bus* bus = nullptr;
    EXPECT_GE(sd_bus_new(&bus), 0);
    sd_bus_set_address(bus, address.c_str());
    sd_bus_set_bus_client(bus, 1);
    EXPECT_GE(sd_bus_start(bus), 0);
    sd_bus_message* reply = nullptr;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    std::string xml;
    if (sd_bus_call_method(bus, destination, path, "org.freedesktop.DBus.Introspectable",
                           "Introspect", &error, &reply, "") >= 0) {
        const char* text = nullptr;
        sd_bus_message_read(reply, "s", &text);
        xml = text;
    }
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
    sd_bus_flush_close_unref(bus);
    return xml;
}

TEST_F(DbusAdapterTest, LiveIntrospectionMatchesTheInterfaceXml) {
    auto caller = client(std::make_shared<FakeClient>(events));
    const auto clientName = caller->uniqueName();
    for (const auto& [destination, path, interface] :
         {std::tuple{kServiceName, kHostPath, kHostInterface},
          std::tuple{clientName.c_str(), kClientPath, kClientInterface}}) {
        SCOPED_TRACE(interface);
        const auto expected = interfaceShape(
            readFile(std::string(SKIFF_SOURCE_DIR "/data/dbus/") + interface + ".xml"), interface);
        EXPECT_FALSE(expected.empty());
        EXPECT_EQ(interfaceShape(introspect(bus.address(), destination, path), interface),
                  expected);
    }
}

TEST_F(DbusAdapterTest, SharedBuffersAreCheckedAndBelongToTheirConnection) {
    auto owner = client();
    auto other = client();
    constexpr std::uint64_t kReply = kMaxRelayBodyBytes;
    auto memory = SharedMemory::create(64 + kReply, "test");
    // The other connection has a buffer of its own, so an id only unique per connection
    // would name it.
    auto otherMemory = SharedMemory::create(64 + kReply, "other");
    other->registerSharedBuffer(otherMemory->fd());
    const auto id = owner->registerSharedBuffer(memory->fd());
    const Bytes body{1, 2, 3};
    std::copy(body.begin(), body.end(), memory->bytes().begin());

    const auto answer = owner->relayToUsbMuxShared(9, id, 0, 3, 64, kReply);
    EXPECT_EQ(answer.replyLength, 3u);
    EXPECT_EQ(answer.status, 9);
    EXPECT_EQ(answer.code, -9);
    EXPECT_EQ(Bytes(memory->bytes().begin() + 64, memory->bytes().begin() + 67), (Bytes{3, 2, 1}));

    struct Case {
        const char* what;
        std::function<void()> call;
    };
    const std::uint64_t size = memory->size();
    const std::vector<Case> refused = {
        {"request past the end",
         [&] { owner->relayToUsbMuxShared(9, id, size - 2, 3, 64, kReply); }},
        {"offset overflow", [&] { owner->relayToUsbMuxShared(9, id, kMaxU, 2, 64, kReply); }},
        {"reply past the end", [&] { owner->relayToUsbMuxShared(9, id, 0, 3, 65, kReply); }},
        {"reply too small", [&] { owner->relayToUsbMuxShared(9, id, 0, 3, 64, kReply - 1); }},
        {"another connection's buffer",
         [&] { other->relayToUsbMuxShared(9, id, 0, 3, 64, kReply); }},
        {"unknown buffer", [&] { owner->relayToUsbMuxShared(9, id + 1, 0, 3, 64, kReply); }},
        {"release of another's", [&] { other->releaseSharedBuffer(id); }},
        {"not a memfd", [&] { owner->registerSharedBuffer(STDIN_FILENO); }},
        {"shrinkable memfd",
         [&] {
             const int fd = ::memfd_create("shrinkable", MFD_CLOEXEC);
             ASSERT_EQ(::ftruncate(fd, 1 << 20), 0);
             ASSERT_EQ(::ftruncate(fd, 4096), 0);
             try {
                 owner->registerSharedBuffer(fd);
             } catch (...) {
                 ::close(fd);
                 throw;
             }
             ::close(fd);
         }},
    };
    const int relayed = events.count("relay");
    for (const auto& c : refused) {
        EXPECT_EQ(busErrorOf(c.call), kErrorInvalidArgs) << c.what;
    }
    EXPECT_EQ(events.count("relay"), relayed);
    owner->releaseSharedBuffer(id);
    EXPECT_EQ(busErrorOf([&] { owner->relayToUsbMuxShared(9, id, 0, 3, 64, kReply); }),
              kErrorInvalidArgs);
}

TEST_F(DbusAdapterTest, ObserversHearNotificationsAndDevicesWithoutRegistering) {
    std::mutex mutex;
    std::vector<std::string> heard[2];
    std::vector<std::unique_ptr<HarborClient>> watchers;
    for (auto& lines : heard) {
        auto hear = [&](std::string line) {
            std::lock_guard guard(mutex);
            lines.push_back(std::move(line));
            events.note("heard");
        };
        HarborClient::Observer observer;
        observer.notification = [hear](std::int64_t message, Bytes param) {
            hear(std::to_string(message) + ":" + std::string(param.begin(), param.end()));
        };
        observer.deviceChanged = [hear](const std::string& udid, bool attached) {
            hear(udid + (attached ? " attached" : " detached"));
        };
        observer.roleChanged = [hear](std::int64_t role, const std::string& holder,
                                      const std::string& replaced) {
            hear(std::to_string(role) + " " + holder + " replaces " + replaced);
        };
        observer.volumeNotice = hear;
        watchers.push_back(client());
        watchers.back()->observe(std::move(observer));
        EXPECT_TRUE(watchers.back()->serviceRunning());
    }
    hub->observer->notificationPosted(2, Bytes{'{', '}'});
    hub->observer->deviceChanged("SIM-1", true);
    hub->observer->roleChanged(0, ":1.9", ":1.8");
    hub->observer->volumeNotice("kept notes.txt");
    ASSERT_TRUE(events.waitFor("heard", 8));
    std::lock_guard guard(mutex);
    for (const auto& lines : heard) {
        EXPECT_EQ(lines, (std::vector<std::string>{"2:{}", "SIM-1 attached", "0 :1.9 replaces :1.8",
                                                   "kept notes.txt"}));
    }
    EXPECT_EQ(events.count("accepted"), 0);  // nobody became a client to listen
}

TEST(NoticeQueueTest, PastTheBoundNoticesAreDroppedAndTheRestKeepTheirOrder) {
    testing::TestBus bus;
    runtime::IoRuntime runtime{1};
    runtime.start();
    auto connection = BusConnection::open(runtime.executor(), bus.address());
    connection->start([] {});
    Events events;
    std::mutex mutex;
    std::vector<std::int64_t> sent;
    // Hold the strand so that nothing drains while the queue fills; held before the queue
    // registers itself, since registering drains too.
    std::promise<void> release;
    connection->post([released = release.get_future().share()] { released.wait(); });
    auto queue = NoticeQueue::create(
        connection, "test",
        [&](BusConnection&, std::int64_t m, const Bytes&) {
            std::lock_guard guard(mutex);
            sent.push_back(m);
            events.note("sent");
            return 0;
        },
        100);

    EXPECT_TRUE(queue->offer(1, Bytes(40)));
    EXPECT_TRUE(queue->offer(2, Bytes(40)));
    EXPECT_FALSE(queue->offer(3, Bytes(40)));
    EXPECT_TRUE(queue->offer(4, Bytes(20)));
    release.set_value();
    ASSERT_TRUE(events.waitFor("sent", 3));
    EXPECT_TRUE(queue->offer(5, Bytes(100)));  // drained: room again
    EXPECT_TRUE(events.waitFor("sent", 4));
    connection->close();
    std::lock_guard guard(mutex);
    EXPECT_EQ(sent, (std::vector<std::int64_t>{1, 2, 4, 5}));
}

}  // namespace
}  // namespace skiff::service::dbus
