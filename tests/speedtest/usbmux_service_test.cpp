#include <chrono>

#include "speedtest/speedtest_support.hpp"
#include "usbmuxkit/service/usbmux_service.hpp"

namespace skiff::test {
namespace {

using usbmuxkit::UsbMuxService;
using ErrorCode = UsbMuxService::ErrorCode;

class SpeedTest : public PhoneTest {
protected:
    void TearDown() override {
        service_.reset();  // before the native manager goes
        PhoneTest::TearDown();
    }
    // A phone with `devices` and a started service in front of it.
    UsbMuxService& started(std::vector<std::string> devices, std::vector<std::string> args = {},
                           std::chrono::milliseconds deadline = UsbMuxService::kRoundDeadline) {
        startPhone(std::move(devices), std::move(args));
        service_ = std::make_unique<UsbMuxService>(runtime_.executor(), deadline);
        run(service_->start());
        return *service_;
    }
    UsbMuxService::SpeedTestRound round(UsbMuxService& service, std::uint64_t bytes) {
        return run(service.runSpeedTestRound(kAppPort, bytes));
    }
    ErrorCode failure(UsbMuxService& service, std::uint64_t bytes = 1024) {
        try {
            round(service, bytes);
        } catch (const UsbMuxService::Error& error) {
            return error.code();
        }
        ADD_FAILURE() << "the round succeeded";
        return ErrorCode::pingFailed;
    }
    std::unique_ptr<UsbMuxService> service_;
};

TEST_F(SpeedTest, NotStartedTouchesNothing) {
    startPhone({"phone-A"});
    UsbMuxService service(runtime_.executor());
    EXPECT_EQ(failure(service), ErrorCode::notStarted);
    EXPECT_TRUE(phone_->connections().empty());
    EXPECT_TRUE(control("received").empty());
}

TEST_F(SpeedTest, TheAppReceivesExactlyTheMeasurementBytesOverOneTunnel) {
    auto& service = started({"phone-A"});
    EXPECT_FALSE(service.lastContact());
    const auto before = std::chrono::system_clock::now();
    // Over two of the native layer's 262144-byte pieces.
    const std::uint64_t bytes = 600'001;
    auto result = round(service, bytes);
    // Its bytes are contact with the app, as a relay answer is.
    EXPECT_GT(service.lastContact().value_or(before), before);
    EXPECT_EQ(result.deviceUDID, "phone-A");
    EXPECT_GE(result.pingMs, 0);
    EXPECT_EQ(result.download.bytes, bytes);
    EXPECT_EQ(result.upload.bytes, bytes);
    EXPECT_GT(result.download.seconds, 0);
    EXPECT_GT(result.upload.seconds, 0);

    // An empty payload: bare headers, and rates of zero.
    auto empty = round(service, 0);
    EXPECT_EQ(empty.download.mibPerSecond(), 0);
    EXPECT_EQ(empty.download.mbitPerSecond(), 0);
    EXPECT_EQ(empty.upload.mibPerSecond(), 0);
    EXPECT_EQ(empty.upload.mbitPerSecond(), 0);
    EXPECT_EQ(control("received"), (std::vector<std::string>{
                                       "line PING\\r\\n",
                                       "line BW:DOWN:600001\\r\\n",
                                       "payload 600001 bytes, 0 not a5",
                                       "line BW:UP:600001\\r\\n",
                                       "line PING\\r\\n",
                                       "line BW:DOWN:0\\r\\n",
                                       "payload 0 bytes, 0 not a5",
                                       "line BW:UP:0\\r\\n",
                                   }));
    EXPECT_EQ(phone_->connections().size(), 1u);
}

TEST_F(SpeedTest, AFailedStepNamesItsErrorCode) {
    auto& service = started({"phone-A"});
    control("fault ack BW:DOWN:OK");  // the acknowledgement without its last colon
    EXPECT_EQ(failure(service), ErrorCode::downloadFailed);

    control("fault clear");
    ASSERT_TRUE(usbmux_tunnel_ensure(firstDeviceTunnel()));
    control("fault close on");  // the app hangs up on the ping
    EXPECT_EQ(failure(service, 0), ErrorCode::connectionFailed);
}

TEST_F(SpeedTest, ARoundPastItsDeadlineFailsInsteadOfWaitingForThePhone) {
    // The pong would come ten minutes late; without the deadline libusbmuxd's own receive
    // time-out would fail the ping as a lost connection instead.
    auto& service = started({"phone-A"}, {}, std::chrono::milliseconds(200));
    control("fault delay 600000");
    EXPECT_EQ(failure(service), ErrorCode::pingFailed);
}

TEST_F(SpeedTest, NoDevicesWithoutAPhone) {
    EXPECT_EQ(failure(started({})), ErrorCode::noDevices);
}

TEST_F(SpeedTest, NoDevicesWhenNoTunnelCouldBeMade) {
    EXPECT_EQ(failure(started({"phone-A"}, {"--no-app"})), ErrorCode::noDevices);
}

TEST_F(SpeedTest, DeviceEventsReachTheHandlerAsRecords) {
    startPhone({"phone-A"});
    UsbMuxService service(runtime_.executor());
    run(service.setDeviceEventHandler(
        [](const auto& event) { noteEvent(event.eventType, event.udid); }));
    run(service.start());
    // libusbmuxd's event stream is up once it announces the present device; changes
    // before that are never evented.
    ASSERT_TRUE(eventSeen("1 phone-A"));
    phone_->detach("phone-A");
    EXPECT_TRUE(eventSeen("2 phone-A"));

    // A restart registers the kept handler again.
    run(service.shutdown());
    phone_->attach("phone-B");
    run(service.start());
    EXPECT_TRUE(eventSeen("1 phone-B"));
}

}  // namespace
}  // namespace skiff::test
