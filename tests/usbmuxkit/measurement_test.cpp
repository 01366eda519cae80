#include "usbmuxkit/measurement.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "fake_usbmux.hpp"
#include "usbmuxkit/usb_tunnel_manager.hpp"

namespace usbmuxkit {
namespace {

using ::testing::MatchesRegex;
using ::testing::StartsWith;

// Without a journal the logger writes to standard error too; keep only our own text.
std::string withoutLogLines(const std::string& text) {
    std::istringstream in(text);
    std::string kept, line;
    while (std::getline(in, line)) {
        if (!line.starts_with("[Mox.Harbor:")) {
            kept += line + "\n";
        }
    }
    return kept;
}

class MeasurementTest : public testing::FakeSessionTest {
protected:
    std::string out, err;

    // The phone's side: a reply queued before the run, sends swallowed whole.
    void phoneReplies(const std::string& bytes) {
        phoneSends(bytes);
        fake.onSend = [](int, const char*, uint32_t length, uint32_t* sent) {
            *sent = length;
            return 0;
        };
    }
    template <typename Run>
    bool captured(Run run) {
        ::testing::internal::CaptureStdout();
        ::testing::internal::CaptureStderr();
        const bool ok = run();
        out = ::testing::internal::GetCapturedStdout();
        err = withoutLogLines(::testing::internal::GetCapturedStderr());
        return ok;
    }
    std::string payloadSent(size_t headerLength) const { return fake.sent.substr(headerLength); }
};

TEST_F(MeasurementTest, PingCountsAnyReplyLine) {
    phoneReplies("PONG\r\nHELLO\n");
    double rtt = -1;
    ASSERT_TRUE(captured([&] { return UsbTunnelManager::runPing(session, &rtt); }));
    EXPECT_EQ(fake.sent, "PING\r\n");
    EXPECT_GE(rtt, 0);
    EXPECT_THAT(out, MatchesRegex("往返延时 \\(RTT\\): [0-9.e+-]+ ms\n"));

    ASSERT_TRUE(captured([&] { return UsbTunnelManager::runPing(session, nullptr); }));
    EXPECT_THAT(out, MatchesRegex("RTT 收到非预期行: \"HELLO\" （仍报告耗时 [0-9.e+-]+ ms\\)\n"));

    // No reply line: a failure, and the out value stays as it was.
    rtt = -1;
    ::shutdown(fake.peerOf(fd), SHUT_WR);
    EXPECT_FALSE(captured([&] { return UsbTunnelManager::runPing(session, &rtt); }));
    EXPECT_EQ(rtt, -1);
    EXPECT_EQ(out, "");
}

TEST_F(MeasurementTest, DownloadWantsTheAcknowledgementAndUploadReadsTheAnnouncedBytes) {
    phoneReplies("BW:DOWN:OK:600000\r\n");
    double seconds = -1;
    ASSERT_TRUE(
        captured([&] { return UsbTunnelManager::runDownloadTest(session, 600000, &seconds); }));
    const std::string header = "BW:DOWN:600000\r\n";
    ASSERT_THAT(fake.sent, StartsWith(header));
    EXPECT_EQ(payloadSent(header.size()), std::string(600000, '\xA5'));
    EXPECT_GT(seconds, 0);
    EXPECT_EQ(out, "下行带宽 Mac → iPhone (USBMUX): " + throughputLine(600000, seconds));

    // Zero bytes: just the header; an acknowledgement without the last colon fails.
    fake.sent.clear();
    phoneReplies("BW:DOWN:OK\r\n");
    EXPECT_FALSE(captured([&] { return UsbTunnelManager::runDownloadTest(session, 0, &seconds); }));
    EXPECT_EQ(fake.sent, "BW:DOWN:0\r\n");
    EXPECT_EQ(err, "意外 ACK: BW:DOWN:OK\n");
    EXPECT_EQ(out, "");

    // The upload reads exactly the announced bytes.
    fake.sent.clear();
    phoneReplies("");
    fake.onRecv = [](int, char* data, uint32_t length, uint32_t* got) {
        std::memset(data, 0x5A, length);
        *got = length;
        return 0;
    };
    ASSERT_TRUE(
        captured([&] { return UsbTunnelManager::runUploadTest(session, 600000, &seconds); }));
    EXPECT_EQ(fake.sent, "BW:UP:600000\r\n");
    EXPECT_GE(seconds, 0);
    EXPECT_EQ(out, "上行带宽 iPhone → Mac (USBMUX): " + throughputLine(600000, seconds));
}

TEST_F(MeasurementTest, FailuresNameTheirStep) {
    const struct {
        bool upload;
        int failingSend;  // 1 the header, 2 the payload; 0 none, so the read fails
        const char* message;
    } cases[] = {
        {false, 1, "BW:DOWN header 发送失败\n"}, {false, 2, "BW:DOWN payload 发送失败\n"},
        {false, 0, "读取 BW:DOWN 确认失败\n"},   {true, 1, "BW:UP header 发送失败\n"},
        {true, 0, "BW:UP 接收 payload 失败\n"},
    };
    fake.onRecv = [](int, char*, uint32_t, uint32_t* got) {
        *got = 0;
        return -ECONNRESET;
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        int sends = 0;
        fake.onSend = [&](int, const char*, uint32_t length, uint32_t* sent) {
            *sent = length;
            return ++sends == c.failingSend ? -EPIPE : 0;
        };
        double seconds = -1;
        EXPECT_FALSE(captured([&] {
            return c.upload ? UsbTunnelManager::runUploadTest(session, 10, &seconds)
                            : UsbTunnelManager::runDownloadTest(session, 10, &seconds);
        }));
        EXPECT_EQ(err, c.message);
        EXPECT_EQ(out, "");
    }
}

TEST(ThroughputLine, SixSignificantDigitsAndAnInvalidTimeNotice) {
    EXPECT_EQ(throughputLine(1048576, 2),
              "字节数: 1048576 用时: 2 s  ≈ 0.5 MiB/s, 4.1943 Mbit/s\n");
    EXPECT_EQ(throughputLine(50331648, 0.123456789),
              "字节数: 50331648 用时: 0.123457 s  ≈ 388.8 MiB/s, 3261.49 Mbit/s\n");
    EXPECT_EQ(throughputLine(100, 0), "带宽: （计时不合法）\n");
    EXPECT_EQ(throughputLine(100, -1), "带宽: （计时不合法）\n");
}

}  // namespace
}  // namespace usbmuxkit
