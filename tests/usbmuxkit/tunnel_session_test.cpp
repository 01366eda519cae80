#include "usbmuxkit/tunnel_session.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "common/log.hpp"
#include "fake_usbmux.hpp"

namespace usbmuxkit {
namespace {

using V = std::vector<uint32_t>;

class TunnelSessionTest : public testing::FakeSessionTest {
protected:
    // Every request is answered with `fill` bytes at most (0: the whole request).
    void recvFills(uint32_t fill) {
        fake.onRecv = [fill](int, char*, uint32_t length, uint32_t* got) {
            *got = fill == 0 ? length : std::min(fill, length);
            return 0;
        };
    }
};

TEST_F(TunnelSessionTest, TransfersAreCutIntoRequestsOfAtMost256KiB) {
    std::vector<char> buffer(600000);
    recvFills(0);
    ASSERT_TRUE(session.recvAll(buffer.data(), 600000));
    EXPECT_EQ(fake.recvRequests, (V{262144, 262144, 75712}));

    // A short answer makes the next request ask for the rest, still capped.
    fake.recvRequests.clear();
    recvFills(100000);
    ASSERT_TRUE(session.recvAll(buffer.data(), 300000));
    EXPECT_EQ(fake.recvRequests, (V{262144, 200000, 100000}));

    // Short writes are accepted and continued.
    fake.onSend = [](int, const char*, uint32_t length, uint32_t* sent) {
        *sent = std::min<uint32_t>(length, 250000);
        return 0;
    };
    ASSERT_TRUE(session.sendAll(buffer.data(), 600000));
    EXPECT_EQ(fake.sendRequests, (V{262144, 262144, 100000}));
}

TEST_F(TunnelSessionTest, RecvRetriesSilentRoundsButFailsOnTimeOutWithBytesOrClose) {
    int rounds = 0;
    fake.onRecv = [&](int, char*, uint32_t length, uint32_t* got) {
        *got = ++rounds <= 3 ? 0 : length;
        return rounds <= 3 ? -ETIMEDOUT : 0;
    };
    char buffer[10];
    EXPECT_TRUE(session.recvAll(buffer, 10));
    EXPECT_EQ(rounds, 4);

    skiff::log::LogCapture log;
    fake.onRecv = [](int, char*, uint32_t, uint32_t* got) {
        *got = 4;
        return -ETIMEDOUT;
    };
    EXPECT_FALSE(session.recvAll(buffer, 10));
    fake.onRecv = nullptr;
    phoneSends("abc");
    ::shutdown(fake.peerOf(fd), SHUT_WR);
    EXPECT_FALSE(session.recvAll(buffer, 10));
    const auto messages = log.messages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0], "[UsbTunnelManager] recvAll failed fd=" + std::to_string(fd) +
                               " st=" + std::to_string(-ETIMEDOUT) +
                               " got=4 recvTotal=0 total=10 requestChunk=10");
    EXPECT_EQ(messages[1], "[UsbTunnelManager] recvAll failed fd=" + std::to_string(fd) +
                               " st=" + std::to_string(-ECONNRESET) +
                               " got=0 recvTotal=3 total=10 requestChunk=7");
    EXPECT_EQ(std::string(buffer, 3), "abc");  // what arrived stays
}

TEST_F(TunnelSessionTest, SendStopsAtAnErrorOrAZeroCount) {
    skiff::log::LogCapture log;
    int calls = 0;
    fake.onSend = [&](int, const char*, uint32_t, uint32_t* sent) {
        *sent = ++calls == 1 ? 1000 : 0;
        return 0;
    };
    std::vector<char> data(300000);
    EXPECT_FALSE(session.sendAll(data.data(), 300000));
    fake.onSend = [](int, const char*, uint32_t, uint32_t* sent) {
        *sent = 7;
        return -EPIPE;
    };
    EXPECT_FALSE(session.sendAll(data.data(), 20));
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(log.messages(),
              (std::vector<std::string>{
                  "[UsbTunnelManager] sendAll failed fd=" + std::to_string(fd) +
                      " rc=0 chunk=0 sentTotal=1000 total=300000 requestChunk=262144",
                  "[UsbTunnelManager] sendAll failed fd=" + std::to_string(fd) + " rc=" +
                      std::to_string(-EPIPE) + " chunk=7 sentTotal=0 total=20 requestChunk=20"}));
}

TEST_F(TunnelSessionTest, ZeroLengthAndClosedSessions) {
    EXPECT_TRUE(session.sendAll(nullptr, 0));
    EXPECT_TRUE(session.recvAll(nullptr, 0));
    EXPECT_TRUE(fake.sendRequests.empty() && fake.recvRequests.empty());

    skiff::log::LogCapture log;
    session.close();
    session.close();
    EXPECT_EQ(fake.disconnects, std::vector<int>{fd});
    EXPECT_LT(session.fd(), 0);
    std::string line;
    EXPECT_FALSE(session.sendAll(nullptr, 0));
    EXPECT_FALSE(session.recvAll(nullptr, 5));
    EXPECT_FALSE(session.readLine(line));
    EXPECT_EQ(log.messages(),
              (std::vector<std::string>{"[UsbTunnelManager] sendAll failed: invalid fd total=0",
                                        "[UsbTunnelManager] recvAll failed: invalid fd total=5"}));
    EXPECT_TRUE(fake.sendRequests.empty() && fake.recvRequests.empty());
    { TunnelSession alreadyClosed(-1, "X", 1, 1); }
    EXPECT_EQ(fake.disconnects.size(), 1u);
}

TEST_F(TunnelSessionTest, ReadLineStopsAtLineFeedAndDropsOnlyTrailingCarriageReturns) {
    std::string line;
    const std::string lines = "PONG\r\n\r\nA\rB\nPONG\r\r\n";
    phoneSends(lines + "XYZ");
    ASSERT_TRUE(session.readLine(line));
    EXPECT_EQ(line, "PONG");
    ASSERT_TRUE(session.readLine(line));
    EXPECT_EQ(line, "");
    ASSERT_TRUE(session.readLine(line));
    EXPECT_EQ(line, "A\rB");
    ASSERT_TRUE(session.readLine(line));
    EXPECT_EQ(line, "PONG");
    EXPECT_EQ(fake.recvRequests, V(lines.size(), 1));

    // Nothing after the LF was consumed.
    char rest[3];
    ASSERT_TRUE(session.recvAll(rest, 3));
    EXPECT_EQ(std::string(rest, 3), "XYZ");

    // One silent round ends a line read; what came so far is kept.
    phoneSends("PO");
    int calls = 0;
    fake.onRecv = [&](int f, char* data, uint32_t length, uint32_t* got) {
        return ++calls <= 2 ? fake.passThroughRecv(f, data, length, got) : (*got = 0, -ETIMEDOUT);
    };
    EXPECT_FALSE(session.readLine(line));
    EXPECT_EQ(line, "PO");
    EXPECT_EQ(calls, 3);

    // So does the peer's close.
    fake.onRecv = nullptr;
    ::shutdown(fake.peerOf(fd), SHUT_WR);
    EXPECT_FALSE(session.readLine(line));
}

}  // namespace
}  // namespace usbmuxkit
