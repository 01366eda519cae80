#include "transfer/shared_file_storage.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/child_process.hpp"

namespace skiff::transfer {
namespace {

namespace fs = std::filesystem;
using Case = SharedFileStorageError::Case;

class SharedFileStorageTest : public ::testing::Test {
protected:
    SharedFileStorageTest() : container_(fs::path(base_.path()) / "data/Harbor/group") {}

    static void write(const fs::path& path, const std::string& text) {
        std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    }
    static std::string read(const fs::path& path) {
        std::ifstream in(path, std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    static unsigned modeOf(const fs::path& path) {
        struct stat st {};
        EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
        return st.st_mode & 07777;
    }
    // The case of the error that call throws, or nothing.
    template <class Call>
    static std::optional<Case> failure(Call call) {
        try {
            call();
        } catch (const SharedFileStorageError& error) {
            return error.errorCase();
        }
        return std::nullopt;
    }

    test::TempDir base_;
    fs::path container_;
    SharedFileStorage storage_{container_};
};

TEST_F(SharedFileStorageTest, CreateMakesAPrivateContainerAndReservesTheSize) {
    const UniqueFd empty = storage_.create("empty.part", 0);
    ASSERT_GE(empty.get(), 0);
    EXPECT_EQ(modeOf(container_), 0700u);
    EXPECT_EQ(fs::file_size(container_ / "empty.part"), 0u);
    EXPECT_EQ(modeOf(container_ / "empty.part"), 0600u);

    // An existing file is cut to nothing, sized anew and made private.
    write(container_ / "sized.part", "old content that is longer");
    fs::permissions(container_ / "sized.part", fs::perms(0644));
    const UniqueFd sized = storage_.create("sized.part", 5);
    ASSERT_GE(sized.get(), 0);
    EXPECT_EQ(read(container_ / "sized.part"), std::string(5, '\0'));
    EXPECT_EQ(modeOf(container_ / "sized.part"), 0600u);
    ASSERT_EQ(::pwrite(sized.get(), "xy", 2, 3), 2);
    EXPECT_EQ(read(container_ / "sized.part"), std::string("\0\0\0xy", 5));
}

TEST_F(SharedFileStorageTest, MoveReplacesTheFinalFileAndRemoveIsQuiet) {
    storage_.create("transfer_1.part", 0);
    write(container_ / "transfer_1.part", "new");
    write(container_ / "transfer_1.bin", "old and longer");
    storage_.moveToFinalName("transfer_1.part", "transfer_1.bin");
    EXPECT_EQ(read(container_ / "transfer_1.bin"), "new");
    EXPECT_FALSE(fs::exists(container_ / "transfer_1.part"));

    EXPECT_EQ(failure([&] { storage_.moveToFinalName("transfer_1.part", "x.bin"); }),
              Case::ioFailed);
    EXPECT_TRUE(fs::exists(container_ / "transfer_1.bin"));

    storage_.remove("transfer_1.bin");
    EXPECT_FALSE(fs::exists(container_ / "transfer_1.bin"));
    storage_.remove("transfer_1.bin");
    storage_.remove("never-there");
}

TEST_F(SharedFileStorageTest, NamesThatCouldLeaveTheContainerAreRefused) {
    storage_.create("inside.bin", 0);
    write(container_ / "inside.bin", "inside");
    const fs::path outside = fs::path(base_.path()) / "outside.txt";
    write(outside, "outside");
    fs::create_symlink(outside, container_ / "link-out");
    fs::create_symlink(container_ / "inside.bin", container_ / "link-in");
    fs::create_directory(container_ / "dir");
    write(container_ / "dir/nested", "nested");
    ASSERT_EQ(::mkfifo((container_ / "fifo").c_str(), 0600), 0);

    const std::vector<std::string> badNames = {
        "",
        ".",
        "..",
        "../outside.txt",
        "dir/nested",
        "/etc/passwd",
        std::string("inside.bin\0x", 12),
    };
    for (const auto& name : badNames) {
        SCOPED_TRACE(name);
        EXPECT_EQ(failure([&] { storage_.openSourceFile(name); }), Case::ioFailed);
        EXPECT_EQ(failure([&] { storage_.create(name, 1); }), Case::ioFailed);
        EXPECT_EQ(failure([&] { storage_.moveToFinalName("inside.bin", name); }), Case::ioFailed);
        storage_.remove(name);
    }
    // Links (even to a file inside), directories and FIFOs are no source files.
    for (const char* name : {"link-out", "link-in", "dir", "fifo"}) {
        EXPECT_EQ(failure([&] { storage_.openSourceFile(name); }), Case::ioFailed) << name;
    }
    // Creating over a link does not write through it.
    EXPECT_EQ(failure([&] { storage_.create("link-out", 1); }), Case::ioFailed);

    EXPECT_EQ(read(outside), "outside");
    EXPECT_EQ(read(container_ / "inside.bin"), "inside");
    EXPECT_EQ(read(container_ / "dir/nested"), "nested");
    const UniqueFd source = storage_.openSourceFile("inside.bin");
    char text[6];
    EXPECT_EQ(::pread(source.get(), text, sizeof text, 0), 6);
}

TEST(SharedFileStorageNames, ContainerPathAndTransferNames) {
    struct Env {
        const char* xdg;
        const char* home;
        std::optional<fs::path> expected;
    };
    const std::vector<Env> cases = {
        {"/data", "/home/u", fs::path("/data/Harbor/group.Mox.Harbor")},
        {nullptr, "/home/u", fs::path("/home/u/.local/share/Harbor/group.Mox.Harbor")},
        {"", "/home/u", fs::path("/home/u/.local/share/Harbor/group.Mox.Harbor")},
        {"relative", "/home/u", fs::path("/home/u/.local/share/Harbor/group.Mox.Harbor")},
        {nullptr, "", std::nullopt},
        {nullptr, nullptr, std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(defaultContainerPath(c.xdg, c.home), c.expected)
            << (c.xdg ? c.xdg : "(unset)") << " " << (c.home ? c.home : "(unset)");
    }

    const auto id = *Uuid::parse("0f8fad5b-d9cb-469f-a165-70867728950e");
    EXPECT_EQ(partFileName(id), "transfer_0F8FAD5B-D9CB-469F-A165-70867728950E.part");
    EXPECT_EQ(finalFileName(id), "transfer_0F8FAD5B-D9CB-469F-A165-70867728950E.bin");
}

}  // namespace
}  // namespace skiff::transfer
