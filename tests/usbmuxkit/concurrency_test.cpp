// Transfers racing with invalidation, stale replacement and pruning by the event
// thread: the blocked transfer must wake and fail, and its socket must not be closed
// (and its number handed out again) while it is still in use.

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <thread>

#include "fake_usbmux.hpp"
#include "usbmuxkit/usbmux_flat.h"

namespace usbmuxkit {
namespace {

using testing::FakeUsbmux;

class ConcurrencyTest : public ::testing::Test {
protected:
    void SetUp() override {
        fake.setDevices({{5, "A"}});
        ASSERT_TRUE(usbmux_mgr_start());
        ASSERT_TRUE(usbmux_tunnel_ensure(id));
        // Announce each receive that starts, then read the socket for real.
        fake.onRecv = [this](int fd, char* data, uint32_t length, uint32_t* got) {
            {
                std::lock_guard lock(mutex);
                ++recvsStarted;
            }
            started.notify_all();
            return fake.passThroughRecv(fd, data, length, got);
        };
    }
    void TearDown() override { usbmux_mgr_shutdown(); }

    // Blocks a receive on another thread, runs `drop`, and expects the receive to fail.
    void expectBlockedRecvWokenBy(const std::function<void()>& drop) {
        auto recv = std::async(std::launch::async, [this] {
            char buffer[64];
            usbmux_tunnel_conn* conn = usbmux_tunnel_conn_acquire(id);
            const bool ok = usbmux_tunnel_conn_recv(conn, buffer, sizeof buffer);
            usbmux_tunnel_conn_release(conn);
            return ok;
        });
        {
            std::unique_lock lock(mutex);
            ASSERT_TRUE(started.wait_for(lock, std::chrono::seconds(30),
                                         [this] { return recvsStarted > 0; }));
        }
        drop();
        ASSERT_EQ(recv.wait_for(std::chrono::seconds(60)), std::future_status::ready);
        EXPECT_FALSE(recv.get());
        EXPECT_EQ(fake.disconnectsDuringRecv, 0);
        EXPECT_EQ(fake.disconnects.size(), 1u);
    }

    FakeUsbmux fake;
    tunnel_id id{{'A'}, 33325};
    std::mutex mutex;
    std::condition_variable started;
    int recvsStarted = 0;
};

TEST_F(ConcurrencyTest, InvalidateWakesABlockedReceive) {
    expectBlockedRecvWokenBy([&] { usbmux_mgr_invalidate_tunnel(id); });
}

TEST_F(ConcurrencyTest, PruningOnTheEventThreadWakesABlockedReceive) {
    expectBlockedRecvWokenBy([&] {
        fake.setDevices({{6, "A"}});
        fake.fireFromThread(1, 6, "A");
    });
}

TEST_F(ConcurrencyTest, CallersAndDeviceEventsInterleave) {
    fake.onSend = [](int, const char*, uint32_t length, uint32_t* sent) {
        *sent = length;
        return 0;
    };
    std::thread events([&] {
        for (uint32_t handle = 10; handle < 110; ++handle) {
            fake.setDevices({{handle, "A"}});
            fake.fire(1, handle, "A");
        }
    });
    const auto sendPing = [this] {
        usbmux_tunnel_conn* conn = usbmux_tunnel_conn_open(id);
        const bool ok = usbmux_tunnel_conn_send(conn, "ping", 4);
        usbmux_tunnel_conn_release(conn);
        return ok;
    };
    int sentOk = 0;
    for (int i = 0; i < 200; ++i) {
        sentOk += sendPing() ? 1 : 0;
        tunnel_id* list = nullptr;
        usbmux_mgr_free_tunnels(list, usbmux_mgr_copy_current_tunnels(&list));
        if (i % 50 == 0) {
            usbmux_mgr_invalidate_tunnel(id);
        }
    }
    events.join();
    EXPECT_GT(sentOk, 0);
    EXPECT_TRUE(sendPing());
}

}  // namespace
}  // namespace usbmuxkit
