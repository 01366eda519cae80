#include <condition_variable>
#include <future>
#include <mutex>

#include "common/byte_text.hpp"
#include "speedtest/speedtest_support.hpp"
#include "tunnel/tunnel_engine.hpp"
#include "tunnel/tunnel_errors.hpp"
#include "tunnel/usbmux_tunnel_transport.hpp"

namespace skiff::test {
namespace {

using skiff::testing::bytesOf;
using tunnel::TunnelEngine;
using tunnel::TunnelEngineError;
using tunnel::TunnelMessage;

// An engine in the client role over a native tunnel to the app, as the service binds it.
class FramedApp : public PhoneTest {
protected:
    void SetUp() override {
        startPhone({"phone-A"});
        ASSERT_TRUE(usbmux_mgr_start());
        ASSERT_TRUE(usbmux_tunnel_ensure(firstDeviceTunnel()));
        transport_ = std::make_shared<tunnel::UsbMuxTunnelTransport>(firstDeviceTunnel());
        engine_ = std::make_shared<TunnelEngine>(runtime_.executor());
        tunnel::TunnelBinding binding;
        binding.transport = transport_;
        binding.tunnelKey = "phone-A:33325";
        binding.notifyHandler = [this](std::uint16_t code, Bytes payload) {
            std::lock_guard lock(mutex_);
            pushes_.emplace_back(code, std::string(payload.begin(), payload.end()));
            pushed_.notify_all();
        };
        run(engine_->bind(std::move(binding)));
    }
    void TearDown() override {
        run(engine_->unbind());
        run(transport_->close());
        PhoneTest::TearDown();
    }

    TunnelMessage request(std::uint16_t code, const std::string& body = {}) {
        return run(engine_->request(code, bytesOf(body)));
    }
    // Whether count pushes have arrived in all within the tests' wait limit.
    bool pushesArrive(std::size_t count) {
        std::unique_lock lock(mutex_);
        return pushed_.wait_for(lock, skiff::testing::kWaitLimit,
                                [&] { return pushes_.size() >= count; });
    }

    std::shared_ptr<tunnel::UsbMuxTunnelTransport> transport_;
    std::shared_ptr<TunnelEngine> engine_;
    std::mutex mutex_;
    std::condition_variable pushed_;
    std::vector<std::pair<std::uint16_t, std::string>> pushes_;
};

TEST_F(FramedApp, AnswersKeepalivesAndUnknownCodesAndPushes) {
    auto answer = request(0, "ignored");
    EXPECT_EQ(answer.code, 0);
    EXPECT_TRUE(answer.payload.empty());
    EXPECT_NE(request(0x7777).code, 0);

    EXPECT_EQ(control("push 3 {\"mount\": true}"), std::vector<std::string>{"1"});
    ASSERT_TRUE(pushesArrive(1));
    std::lock_guard lock(mutex_);
    EXPECT_EQ(pushes_.front(), (std::pair<std::uint16_t, std::string>{3, "{\"mount\": true}"}));
}

TEST_F(FramedApp, FaultSwitchesShapeTheAnswersOrHangUp) {
    control("fault status 9");
    EXPECT_EQ(request(0).code, 9);
    control("fault status off");
    control("fault delay 50");
    EXPECT_EQ(request(0).code, 0);

    // A silent app still reads the request; turning it back on answers it.
    control("fault silent on");
    auto pending = asio::co_spawn(runtime_.executor(), engine_->request(0, {}), asio::use_future);
    EXPECT_EQ(pending.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
    control("fault clear");
    ASSERT_TRUE(skiff::testing::readyInTime(pending));
    EXPECT_EQ(pending.get().code, 0);

    // An app that hangs up on a request fails it.
    control("fault close on");
    EXPECT_THROW(request(0), TunnelEngineError);
}

}  // namespace
}  // namespace skiff::test
