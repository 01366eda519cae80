// The volume through the kernel: skiff-fs mounted in the foreground as a child process,
// between a real mount point and skiffd with the simulated phone. Each test mounts its own
// volume and unmounts it in teardown.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "common/run_sync.hpp"
#include "e2e/service_stack.hpp"
#include "support/file_text.hpp"
#include "volume/errno_map.hpp"

namespace skiff::test {
namespace {

namespace fs = std::filesystem;

void writePattern(const fs::path& path, std::size_t size, char seed) {
    fs::create_directories(path.parent_path());
    std::string content(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        content[i] = static_cast<char>(seed + i * 7 % 251);
    }
    std::ofstream(path, std::ios::binary) << content;
}

// Runs a shell command to its end; its exit status and output.
struct Ran {
    int status = -1;
    std::string output;
};
Ran run(const std::string& command) {
    ChildProcess child({"/bin/sh", "-c", command});
    const auto status = child.waitForExit(std::chrono::seconds(120));
    return {status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1, child.output()};
}

class MountedVolume : public ::testing::Test {
protected:
    // Storage the phone starts with; each test adds what it needs.
    virtual void prepare(const fs::path&) {}

    void SetUp() override {
        if (::access("/dev/fuse", R_OK | W_OK) != 0 ||
            ::access("/usr/bin/fusermount3", X_OK) != 0) {
            GTEST_SKIP() << "FUSE is not available here: /dev/fuse or fusermount3 is missing";
        }
        stack_ = std::make_unique<ServiceStack>([this](const std::string& storage) {
            fs::create_directories(fs::path(storage) / "Documents");
            std::ofstream(fs::path(storage) / "Documents/notes.txt") << "twelve bytes";
            prepare(storage);
        });
        mountDir_ = std::make_unique<TempDir>("skiff-mnt");
        volume_ = std::make_unique<ChildProcess>(
            std::vector<std::string>{buildPath("src/volume/skiff-fs"), "skiff-test-source",
                                     mountDir_->path(), "-f"},
            stack_->environment());
        ASSERT_TRUE(volume_->waitForOutput("skiff-fs: mounted", kE2eWait)) << volume_->output();
        mounted_ = true;
        // The service may learn of the phone a moment after the mount.
        ASSERT_TRUE(testing::eventually([&] {
            return fs::exists(mount() / "Documents/notes.txt");
        })) << volume_->output();
    }

    void TearDown() override {
        if (mounted_) {
            run("fusermount3 -u -z '" + mountDir_->path() + "'");
        }
        if (volume_) {
            volume_->stop();
        }
    }

    fs::path mount() const { return mountDir_->path(); }
    fs::path storage() const { return stack_->storage(); }

    std::unique_ptr<ServiceStack> stack_;
    std::unique_ptr<TempDir> mountDir_;
    std::unique_ptr<ChildProcess> volume_;
    bool mounted_ = false;
};

class MountedTree : public MountedVolume {
protected:
    void prepare(const fs::path& storage) override {
        // Sizes around the 4 MiB chunk: empty, one byte, exactly one chunk, one byte more.
        const std::size_t sizes[] = {0, 1, 4'194'304, 4'194'305, 10'000'000};
        for (std::size_t i = 0; i < std::size(sizes); ++i) {
            writePattern(storage / "tree/sized" / ("file" + std::to_string(i)), sizes[i], 'a');
        }
        for (int d = 0; d < 10; ++d) {
            for (int f = 0; f < 25; ++f) {
                writePattern(storage / "tree" / ("dir" + std::to_string(d)) / "sub" /
                                 ("f" + std::to_string(f) + ".txt"),
                             100 + f * 37, static_cast<char>('A' + d));
            }
        }
        // More entries than one page of the app's listing.
        fs::create_directories(storage / "many");
        for (int i = 0; i < 2500; ++i) {
            std::ofstream(storage / "many" / ("entry" + std::to_string(i)));
        }
    }
};

TEST_F(MountedTree, ATreeReadsListsAndCopiesInAndOutAsThePhoneHoldsIt) {
    const auto mountinfo = readFile("/proc/self/mountinfo");
    EXPECT_NE(mountinfo.find(mountDir_->path() + " "), std::string::npos);
    EXPECT_NE(mountinfo.find(" - fuse.skiff skiff-test-source "), std::string::npos);

    const auto diff = run("diff -r '" + (storage() / "tree").string() + "' '" +
                          (mount() / "tree").string() + "'");
    EXPECT_EQ(diff.status, 0) << diff.output;
    EXPECT_EQ(std::distance(fs::directory_iterator(mount() / "many"), fs::directory_iterator()),
              2500);

    // Copied in through the volume and out again, the tree is unchanged on the phone and here.
    const auto tree = (storage() / "tree").string();
    const auto copied = run("cp -r '" + tree + "' '" + (mount() / "copied").string() + "'");
    ASSERT_EQ(copied.status, 0) << copied.output << volume_->output();
    // An empty file that was never written goes out once its last handle is released.
    Ran onPhone;
    EXPECT_TRUE(testing::eventually([&] {
        onPhone = run("diff -r '" + tree + "' '" + (storage() / "copied").string() + "'");
        return onPhone.status == 0;
    })) << onPhone.output;
    TempDir scratch("skiff-copy");
    const auto back = run("cp -r '" + (mount() / "copied").string() + "' '" + scratch.path() +
                          "/back' && diff -r '" + tree + "' '" + scratch.path() + "/back'");
    EXPECT_EQ(back.status, 0) << back.output;
}

TEST_F(MountedVolume, ChangesOnEitherSideReachTheOtherWithTheirErrors) {
    const auto docs = mount() / "Documents";
    // The directory's listing is now cached.
    ASSERT_EQ(std::distance(fs::directory_iterator(docs), fs::directory_iterator()), 1);
    std::ofstream(storage() / "Documents/fresh.txt") << "from the phone";
    // What the service does for an item poke.
    ASSERT_EQ(::utimensat(AT_FDCWD, (docs / "fresh.txt").c_str(), nullptr, 0), 0) << errno;
    EXPECT_TRUE(fs::exists(docs / "fresh.txt"));
    bool listed = false;
    for (const auto& entry : fs::directory_iterator(docs)) {
        listed = listed || entry.path().filename() == "fresh.txt";
    }
    EXPECT_TRUE(listed);
    // A poke for an item deleted on the phone fails and the item is gone at once.
    ASSERT_TRUE(fs::exists(docs / "fresh.txt"));
    fs::remove(storage() / "Documents/fresh.txt");
    EXPECT_EQ(::utimensat(AT_FDCWD, (docs / "fresh.txt").c_str(), nullptr, 0), -1);
    EXPECT_FALSE(fs::exists(docs / "fresh.txt"));
    // A poke sets no time on the phone.
    const auto before = fs::last_write_time(storage() / "Documents/notes.txt");
    ASSERT_EQ(::utimensat(AT_FDCWD, (docs / "notes.txt").c_str(), nullptr, 0), 0) << errno;
    EXPECT_EQ(fs::last_write_time(storage() / "Documents/notes.txt"), before);

    // A write over a change made on the phone fails its close and leaves the phone's copy.
    const auto notes = mount() / "Documents/notes.txt";
    const int fd = ::open(notes.c_str(), O_WRONLY);
    ASSERT_GE(fd, 0) << errno;
    std::ofstream(storage() / "Documents/notes.txt") << "changed on the phone";
    ASSERT_EQ(::write(fd, "mine", 4), 4);
    EXPECT_EQ(::close(fd), -1);
    EXPECT_EQ(errno, volume::kConflictErrno);
    EXPECT_EQ(readFile(storage() / "Documents/notes.txt"), "changed on the phone");

    std::ofstream(docs / "old.txt") << "old";
    std::ofstream(docs / "new.txt") << "new";
    ASSERT_EQ(::rename((docs / "new.txt").c_str(), (docs / "old.txt").c_str()), 0) << errno;
    EXPECT_EQ(readFile(storage() / "Documents/old.txt"), "new");
    EXPECT_FALSE(fs::exists(storage() / "Documents/new.txt"));

    ASSERT_EQ(::mkdir((docs / "full").c_str(), 0755), 0) << errno;
    std::ofstream(docs / "full/inside.txt") << "x";
    EXPECT_EQ(::rmdir((docs / "full").c_str()), -1);
    EXPECT_EQ(errno, ENOTEMPTY);
    ASSERT_EQ(::unlink((docs / "full/inside.txt").c_str()), 0) << errno;
    EXPECT_EQ(::rmdir((docs / "full").c_str()), 0) << errno;
    EXPECT_FALSE(fs::exists(storage() / "Documents/full"));

    ASSERT_EQ(::truncate((docs / "old.txt").c_str(), 1), 0) << errno;
    EXPECT_EQ(readFile(storage() / "Documents/old.txt"), "n");

    // Shells and dd open, duplicate and close the first descriptor before writing: the
    // phone gets the written file only, never an empty one first.
    const int first = ::open((docs / "redirected.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(first, 0) << errno;
    const int second = ::dup(first);
    ASSERT_EQ(::close(first), 0) << errno;
    EXPECT_FALSE(fs::exists(storage() / "Documents/redirected.txt"));
    ASSERT_EQ(::write(second, "whole", 5), 5);
    ASSERT_EQ(::close(second), 0) << errno;
    EXPECT_EQ(readFile(storage() / "Documents/redirected.txt"), "whole");
}

TEST_F(MountedVolume, CallsFailWhileTheServiceIsAwayAndWorkAgainOnceItIsBack) {
    // The file's content was never read, so nothing cached can answer for the service.
    const auto notes = mount() / "Documents/notes.txt";
    stack_->service().stop();
    auto away = std::async(std::launch::async, [&] {
        const int fd = ::open(notes.c_str(), O_RDONLY);
        char byte = 0;
        const int error = fd < 0 || ::read(fd, &byte, 1) < 0 ? errno : 0;
        if (fd >= 0) {
            ::close(fd);
        }
        return error;
    });
    ASSERT_TRUE(testing::readyInTime(away));
    EXPECT_EQ(away.get(), EIO);

    stack_->restartService();
    std::ofstream(storage() / "Documents/later.txt") << "made after the restart";
    EXPECT_TRUE(testing::eventually([&] {
        return readFile(notes) == "twelve bytes" &&
               readFile(mount() / "Documents/later.txt") == "made after the restart";
    })) << volume_->output();
}

}  // namespace
}  // namespace skiff::test
