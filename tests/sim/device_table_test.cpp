#include <gtest/gtest.h>

#include "sim/device_table.hpp"

namespace skiff::sim {
namespace {

std::vector<std::string> udids(const DeviceTable& table) {
    std::vector<std::string> out;
    for (const auto& d : table.devices()) {
        out.push_back(d.udid);
    }
    return out;
}

TEST(DeviceTable, HandlesAreNeverReusedReplugMovesToTheEndAndAnEmptyUdidCounts) {
    DeviceTable table;
    auto a = table.attach("a");
    auto b = table.attach("b");
    ASSERT_TRUE(a && b);
    EXPECT_NE(a->handle, b->handle);
    EXPECT_FALSE(table.attach("a").has_value());

    auto replug = table.replug("a");
    ASSERT_TRUE(replug.has_value());
    EXPECT_EQ(replug->removed.handle, a->handle);
    EXPECT_NE(replug->added.handle, a->handle);
    EXPECT_NE(replug->added.handle, b->handle);
    EXPECT_EQ(udids(table), (std::vector<std::string>{"b", "a"}));
    EXPECT_EQ(table.findByHandle(a->handle), nullptr);
    EXPECT_EQ(table.findByHandle(replug->added.handle)->udid, "a");

    ASSERT_TRUE(table.detach("b").has_value());
    EXPECT_FALSE(table.detach("b").has_value());
    EXPECT_FALSE(table.replug("b").has_value());
    auto again = table.attach("b");
    EXPECT_GT(again->handle, replug->added.handle);

    // An empty UDID is a device of its own.
    ASSERT_TRUE(table.attach("").has_value());
    EXPECT_FALSE(table.attach("").has_value());
    EXPECT_EQ(udids(table), (std::vector<std::string>{"a", "b", ""}));
    EXPECT_TRUE(table.detach("").has_value());
    EXPECT_EQ(udids(table), (std::vector<std::string>{"a", "b"}));
}

}  // namespace
}  // namespace skiff::sim
