#include "transfer/shared_file_storage.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/child_process.hpp"
#include "support/file_text.hpp"

namespace skiff::transfer {
namespace {

namespace fs = std::filesystem;

using test::readFile;
using test::writeFile;
unsigned modeOf(const fs::path& path) {
    struct stat st {};
    EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
    return st.st_mode & 07777;
}
template <class Call>
bool refused(Call call) {
    try {
        call();
    } catch (const SharedFileStorageError& error) {
        return error.errorCase() == SharedFileStorageError::Case::ioFailed;
    }
    return false;
}

class SharedFileStorageTest : public ::testing::Test {
protected:
    test::TempDir base_;
    fs::path container_ = fs::path(base_.path()) / "data/Harbor/group";
    SharedFileStorage storage_{container_};
};

TEST_F(SharedFileStorageTest, CreateMakesPrivateFilesOfTheReservedSize) {
    ASSERT_GE(storage_.create("empty.part", 0).get(), 0);
    EXPECT_EQ(modeOf(container_), 0700u);
    EXPECT_EQ(fs::file_size(container_ / "empty.part"), 0u);
    EXPECT_EQ(modeOf(container_ / "empty.part"), 0600u);

    // An existing file is cut to nothing, sized anew and made private.
    writeFile(container_ / "sized.part", "old content that is longer");
    fs::permissions(container_ / "sized.part", fs::perms(0644));
    const UniqueFd sized = storage_.create("sized.part", 5);
    EXPECT_EQ(modeOf(container_ / "sized.part"), 0600u);
    ASSERT_EQ(::pwrite(sized.get(), "xy", 2, 3), 2);
    EXPECT_EQ(readFile(container_ / "sized.part"), std::string("\0\0\0xy", 5));
}

TEST_F(SharedFileStorageTest, MoveReplacesTheFinalFileAndRemoveIsQuiet) {
    storage_.create("transfer_1.part", 0);
    writeFile(container_ / "transfer_1.part", "new");
    writeFile(container_ / "transfer_1.bin", "old and longer");
    storage_.moveToFinalName("transfer_1.part", "transfer_1.bin");
    EXPECT_EQ(readFile(container_ / "transfer_1.bin"), "new");
    EXPECT_FALSE(fs::exists(container_ / "transfer_1.part"));
    EXPECT_TRUE(refused([&] { storage_.moveToFinalName("transfer_1.part", "x.bin"); }));

    storage_.remove("transfer_1.bin");
    EXPECT_FALSE(fs::exists(container_ / "transfer_1.bin"));
    storage_.remove("transfer_1.bin");
}

TEST_F(SharedFileStorageTest, OnlyPlainFilesInsideTheContainerAreReached) {
    storage_.create("inside.bin", 0);
    writeFile(container_ / "inside.bin", "inside");
    const fs::path outside = fs::path(base_.path()) / "outside.txt";
    writeFile(outside, "outside");
    fs::create_symlink(outside, container_ / "link-out");
    fs::create_symlink(container_ / "inside.bin", container_ / "link-in");
    fs::create_directory(container_ / "dir");
    writeFile(container_ / "dir/nested", "nested");
    ASSERT_EQ(::mkfifo((container_ / "fifo").c_str(), 0600), 0);

    const std::vector<std::string> badNames = {"",
                                               ".",
                                               "..",
                                               "../outside.txt",
                                               "dir/nested",
                                               outside.string(),
                                               std::string("inside.bin\0x", 12)};
    for (const auto& name : badNames) {
        EXPECT_TRUE(refused([&] { storage_.openSourceFile(name); })) << name;
        EXPECT_TRUE(refused([&] { storage_.create(name, 1); })) << name;
        EXPECT_TRUE(refused([&] { storage_.moveToFinalName("inside.bin", name); })) << name;
        storage_.remove(name);
    }
    // Links (even to a file inside), folders and FIFOs are no source files, and a link
    // is not written through.
    for (const char* name : {"link-out", "link-in", "dir", "fifo"}) {
        EXPECT_TRUE(refused([&] { storage_.openSourceFile(name); })) << name;
    }
    EXPECT_TRUE(refused([&] { storage_.create("link-out", 1); }));

    EXPECT_EQ(readFile(outside), "outside");
    EXPECT_EQ(readFile(container_ / "inside.bin"), "inside");
    EXPECT_EQ(readFile(container_ / "dir/nested"), "nested");
    EXPECT_GE(storage_.openSourceFile("inside.bin").get(), 0);
}

TEST(SharedFileStorageNames, ContainerPathAndTransferNames) {
    const fs::path fromHome("/home/u/.local/share/Harbor/group.Mox.Harbor");
    EXPECT_EQ(defaultContainerPath("/data", "/home/u"), "/data/Harbor/group.Mox.Harbor");
    EXPECT_EQ(defaultContainerPath(nullptr, "/home/u"), fromHome);
    EXPECT_EQ(defaultContainerPath("relative", "/home/u"), fromHome);
    EXPECT_EQ(defaultContainerPath("", nullptr), std::nullopt);

    const auto id = *Uuid::parse("0f8fad5b-d9cb-469f-a165-70867728950e");
    EXPECT_EQ(partFileName(id), "transfer_0F8FAD5B-D9CB-469F-A165-70867728950E.part");
    EXPECT_EQ(finalFileName(id), "transfer_0F8FAD5B-D9CB-469F-A165-70867728950E.bin");
}

}  // namespace
}  // namespace skiff::transfer
