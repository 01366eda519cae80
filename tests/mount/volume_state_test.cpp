#include "mount/volume_state.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

#include "support/child_process.hpp"

namespace skiff::mount {
namespace {

namespace fs = std::filesystem;

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
        std::ofstream(table) << c.table;
        EXPECT_EQ(volumeStateAt(table, c.mountPoint, std::chrono::seconds(20)), c.state) << c.name;
    }
    EXPECT_EQ(volumeStateAt(fs::path(dir.path()) / "no-table", answering, std::chrono::seconds(20)),
              VolumeState::notMounted);
}

}  // namespace
}  // namespace skiff::mount
