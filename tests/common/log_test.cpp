#include "common/log.hpp"

#include <gtest/gtest.h>

namespace skiff::log {

TEST(Log, PrivacyMarkersAreStrippedAndValuesFormatted) {
    EXPECT_EQ(stripPrivacyMarkers("fd=%{public}d rc=%{public}ld %s 100%% %{private}u"),
              "fd=%d rc=%ld %s 100%% %u");

    LogCapture capture;
    usbMuxNative().error("[UsbTunnelManager] sendAll failed: invalid fd total=%{public}u", 7u);
    xpc().info("shutdown — force unmount %{public}s", "ok");

    const auto records = capture.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].subsystem, "Mox.Harbor");
    EXPECT_EQ(records[0].category, "UsbMuxNative");
    EXPECT_EQ(records[0].level, Level::error);
    EXPECT_EQ(records[0].message, "[UsbTunnelManager] sendAll failed: invalid fd total=7");
    EXPECT_EQ(records[1].category, "XPC");
    EXPECT_EQ(records[1].message, "shutdown — force unmount ok");
}

TEST(Log, CaptureSeesOnlyWhatIsLoggedWhileAlive) {
    xpc().info("before");
    LogCapture capture;
    xpc().info("during");
    EXPECT_TRUE(capture.contains("during"));
    EXPECT_FALSE(capture.contains("before"));
}

}  // namespace skiff::log
