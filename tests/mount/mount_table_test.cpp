#include "mount/mount_table.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

#include "mount/volume_state.hpp"
#include "support/child_process.hpp"
#include "support/file_text.hpp"

namespace skiff::mount {
namespace {

namespace fs = std::filesystem;

constexpr const char* kMountPoint = "/home/u/.local/share/Harbor data/mnt";

TEST(MountTable, TheLastMountAtExactlyThePathDecides) {
    const std::string root = "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n";
    const std::string skiff =
        "90 22 0:50 / /home/u/.local/share/Harbor\\040data/mnt rw,nosuid,nodev,relatime "
        "shared:40 - fuse.skiff skiff rw,user_id=1000,group_id=1000\n";
    const std::string tmpfsOnTop =
        "91 90 0:51 / /home/u/.local/share/Harbor\\040data/mnt rw - tmpfs tmpfs rw\n";
    const struct {
        const char* name;
        std::string table;
        std::optional<std::string> type;
    } cases[] = {
        {"nothing there", root, std::nullopt},
        {"the volume, path escaped", root + skiff, "fuse.skiff"},
        {"no optional fields, plain type",
         "90 22 0:50 / /home/u/.local/share/Harbor\\040data/mnt rw - skiff src rw", "skiff"},
        {"another file system hides it", root + skiff + tmpfsOnTop, "tmpfs"},
        {"a longer path is another mount point",
         "90 22 0:50 / /home/u/.local/share/Harbor\\040data/mnt2 rw - fuse.skiff s rw\n",
         std::nullopt},
        {"the unescaped path is not the one the kernel writes",
         "90 22 0:50 / /home/u/.local/share/Harbor data/mnt rw - fuse.skiff s rw\n", std::nullopt},
        {"a truncated line is skipped", root + skiff + "92 90 0:52 / /home/u/.local", "fuse.skiff"},
        {"no separator", "90 22 0:50 / /home/u/.local/share/Harbor\\040data/mnt rw a b c\n",
         std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(mountedTypeAt(c.table, kMountPoint), c.type) << c.name;
    }
    EXPECT_EQ(mountedTypeAt("1 1 0:1 / /a\\134b\\011c rw - ext4 x rw", "/a\\b\tc"), "ext4");
}

// Only a mount of the volume's type is looked at, and a mount point that cannot be
// stat'ed is broken (a dead skiff-fs gives ENOTCONN; a missing directory stands in here).
TEST(VolumeState, TheTableSaysWhetherMountedAndTheMountPointWhetherItAnswers) {
    test::TempDir dir("skiff-volume-state");
    const fs::path answering = fs::path(dir.path()) / "mnt";
    fs::create_directory(answering);
    const fs::path silent = fs::path(dir.path()) / "gone";
    const auto line = [](const fs::path& at, const std::string& type) {
        return "90 22 0:50 / " + at.string() + " rw - " + type + " src rw\n";
    };
    const struct {
        const char* name;
        fs::path mountPoint;
        std::string table;
        VolumeState state;
    } cases[] = {
        {"nothing mounted", answering, "", VolumeState::notMounted},
        {"another file system", silent, line(silent, "ext4"), VolumeState::notMounted},
        {"the volume, answering", answering, line(answering, "fuse.skiff"), VolumeState::mounted},
        {"the volume, not answering", silent, line(silent, "fuse.skiff"), VolumeState::broken},
        {"covered by another mount", silent, line(silent, "fuse.skiff") + line(silent, "tmpfs"),
         VolumeState::notMounted},
    };
    const fs::path table = fs::path(dir.path()) / "mountinfo";
    for (const auto& c : cases) {
        test::writeFile(table, c.table);
        EXPECT_EQ(volumeStateAt(table, c.mountPoint, std::chrono::seconds(20)), c.state) << c.name;
    }
    EXPECT_EQ(volumeStateAt(fs::path(dir.path()) / "no-table", answering, std::chrono::seconds(20)),
              VolumeState::notMounted);
}

}  // namespace
}  // namespace skiff::mount
