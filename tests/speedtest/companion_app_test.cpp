#include <condition_variable>
#include <future>
#include <mutex>
#include <optional>

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
        bind();
    }
    void bind() {
        ASSERT_TRUE(usbmux_tunnel_ensure(firstDeviceTunnel()));
        transport_ = std::make_shared<tunnel::UsbMuxTunnelTransport>(firstDeviceTunnel());
        engine_ = std::make_shared<TunnelEngine>(runtime_.executor());
        tunnel::TunnelBinding binding;
        binding.transport = transport_;
        binding.tunnelKey = "phone-A:33325";
        binding.notifyHandler = [this](std::uint16_t code, Bytes payload) {
            std::lock_guard lock(mutex_);
            ++pushCount_;
            // A flood brings far more than a test needs to look at.
            if (pushes_.size() < kKeptPushes) {
                pushes_.emplace_back(code, std::string(payload.begin(), payload.end()));
            }
            pushed_.notify_all();
        };
        run(engine_->bind(std::move(binding)));
    }
    void TearDown() override {
        run(engine_->unbind());
        run(transport_->close());
        PhoneTest::TearDown();
    }

    // A fresh tunnel after the old one was given up, as the relay does.
    void rebind() {
        run(engine_->unbind());
        run(transport_->close());
        bind();
    }

    TunnelMessage request(std::uint16_t code, const std::string& body = {}) {
        return run(engine_->request(code, bytesOf(body)));
    }
    // The engine error that ends a request, or nothing when it was answered.
    std::optional<TunnelEngineError::Case> requestFailure(std::uint16_t code) {
        try {
            request(code);
        } catch (const TunnelEngineError& error) {
            return error.errorCase();
        }
        return std::nullopt;
    }

    // Whether count pushes have arrived in all within the tests' wait limit.
    bool pushesArrive(std::uint64_t count) {
        std::unique_lock lock(mutex_);
        return pushed_.wait_for(lock, skiff::testing::kWaitLimit,
                                [&] { return pushCount_ >= count; });
    }

    static constexpr size_t kKeptPushes = 64;
    std::shared_ptr<tunnel::UsbMuxTunnelTransport> transport_;
    std::shared_ptr<TunnelEngine> engine_;
    std::mutex mutex_;
    std::condition_variable pushed_;
    std::uint64_t pushCount_ = 0;
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

TEST_F(FramedApp, FloodPushesUntilItsTimeIsUpWhileRequestsAreStillAnswered) {
    request(0);  // the app knows the connection as framed from here on
    EXPECT_EQ(control("flood 2 1024 2"), std::vector<std::string>{"1"});
    EXPECT_EQ(control("connections").size(), 1u);
    EXPECT_EQ(request(0).code, 0);
    std::uint64_t beforeAnswer = 0;
    {
        std::lock_guard lock(mutex_);
        beforeAnswer = pushCount_;
    }
    ASSERT_TRUE(pushesArrive(kKeptPushes));

    // The app reports how many it sent once the time is up; exactly those arrive.
    const std::string ended = "flood of code 2 ended after ";
    ASSERT_TRUE(phone_->process().waitForOutput(ended, skiff::testing::kWaitLimit));
    const std::string output = phone_->process().output();
    const std::uint64_t sent = std::stoull(output.substr(output.find(ended) + ended.size()));
    EXPECT_TRUE(pushesArrive(sent));
    std::lock_guard lock(mutex_);
    EXPECT_EQ(pushCount_, sent);
    // An app busy with nothing but the flood would answer only after its last push.
    EXPECT_LT(beforeAnswer, sent);
    for (const auto& push : pushes_) {
        EXPECT_EQ(push, (std::pair<std::uint16_t, std::string>{2, std::string(1024, 'x')}));
    }
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
    EXPECT_EQ(requestFailure(0), TunnelEngineError::Case::disconnected);
}

TEST_F(FramedApp, StrayFramesEndTheTunnel) {
    for (const std::string what : {"unknown-flow", "bad-header"}) {
        SCOPED_TRACE(what);
        request(0);  // the app knows the connection as framed from here on
        control("fault silent on");
        auto pending =
            asio::co_spawn(runtime_.executor(), engine_->request(0, {}), asio::use_future);
        EXPECT_EQ(control("inject " + what), std::vector<std::string>{"1"});
        ASSERT_TRUE(skiff::testing::readyInTime(pending));
        try {
            pending.get();
            ADD_FAILURE() << "answered";
        } catch (const TunnelEngineError& error) {
            // notBound when the tunnel had already ended before the request went out.
            EXPECT_TRUE(error.errorCase() == TunnelEngineError::Case::disconnected ||
                        error.errorCase() == TunnelEngineError::Case::notBound)
                << error.what();
        }
        EXPECT_EQ(requestFailure(0), TunnelEngineError::Case::notBound);
        control("fault clear");
        rebind();
    }
}

}  // namespace
}  // namespace skiff::test
