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
#include "volume/errno_map.hpp"

namespace skiff::test {
namespace {

namespace fs = std::filesystem;

void writeFile(const fs::path& path, std::size_t size, char seed) {
    fs::create_directories(path.parent_path());
    std::string content(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        content[i] = static_cast<char>(seed + i * 7 % 251);
    }
    std::ofstream(path, std::ios::binary) << content;
}

std::string readText(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
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
            writeFile(storage / "tree/sized" / ("file" + std::to_string(i)), sizes[i], 'a');
        }
        for (int d = 0; d < 10; ++d) {
            for (int f = 0; f < 25; ++f) {
                writeFile(storage / "tree" / ("dir" + std::to_string(d)) / "sub" /
                              ("f" + std::to_string(f) + ".txt"),
                          100 + f * 37, static_cast<char>('A' + d));
            }
        }
    }
};

TEST_F(MountedTree, ATreeReadsBackAsThePhoneHoldsItAndShowsAsASkiffVolume) {
    const auto mountinfo = readText("/proc/self/mountinfo");
    EXPECT_NE(mountinfo.find(mountDir_->path() + " "), std::string::npos);
    EXPECT_NE(mountinfo.find(" - fuse.skiff skiff-test-source "), std::string::npos);

    const auto diff = run("diff -r '" + (storage() / "tree").string() + "' '" +
                          (mount() / "tree").string() + "'");
    EXPECT_EQ(diff.status, 0) << diff.output;
}

TEST_F(MountedTree, ATreeCopiedInAndOutMatchesThePhonesCopy) {
    TempDir scratch("skiff-copy");
    const fs::path local = fs::path(scratch.path()) / "local";
    ASSERT_EQ(run("cp -r '" + (storage() / "tree").string() + "' '" + local.string() + "'").status,
              0);

    auto copied = run("cp -r '" + local.string() + "' '" + (mount() / "copied").string() + "'");
    ASSERT_EQ(copied.status, 0) << copied.output << volume_->output();
    auto onPhone =
        run("diff -r '" + local.string() + "' '" + (storage() / "copied").string() + "'");
    EXPECT_EQ(onPhone.status, 0) << onPhone.output;

    auto back = run("cp -r '" + (mount() / "copied").string() + "' '" +
                    (fs::path(scratch.path()) / "back").string() + "'");
    ASSERT_EQ(back.status, 0) << back.output;
    auto roundTrip = run("diff -r '" + local.string() + "' '" + scratch.path() + "/back'");
    EXPECT_EQ(roundTrip.status, 0) << roundTrip.output;
}

TEST_F(MountedVolume, TreeChangesReachThePhoneWithTheirErrors) {
    const auto docs = mount() / "Documents";
    std::ofstream(docs / "old.txt") << "old";
    std::ofstream(docs / "new.txt") << "new";
    ASSERT_EQ(::rename((docs / "new.txt").c_str(), (docs / "old.txt").c_str()), 0) << errno;
    EXPECT_EQ(readText(storage() / "Documents/old.txt"), "new");
    EXPECT_FALSE(fs::exists(storage() / "Documents/new.txt"));

    ASSERT_EQ(::mkdir((docs / "full").c_str(), 0755), 0) << errno;
    std::ofstream(docs / "full/inside.txt") << "x";
    EXPECT_EQ(::rmdir((docs / "full").c_str()), -1);
    EXPECT_EQ(errno, ENOTEMPTY);
    ASSERT_EQ(::unlink((docs / "full/inside.txt").c_str()), 0) << errno;
    EXPECT_EQ(::rmdir((docs / "full").c_str()), 0) << errno;
    EXPECT_FALSE(fs::exists(storage() / "Documents/full"));

    ASSERT_EQ(::truncate((docs / "old.txt").c_str(), 1), 0) << errno;
    EXPECT_EQ(readText(storage() / "Documents/old.txt"), "n");
}

TEST_F(MountedVolume, AWriteOverAPhoneSideChangeFailsCloseAndLeavesThePhonesCopy) {
    const auto path = mount() / "Documents/notes.txt";
    const int fd = ::open(path.c_str(), O_WRONLY);
    ASSERT_GE(fd, 0) << errno;
    std::ofstream(storage() / "Documents/notes.txt") << "changed on the phone";
    ASSERT_EQ(::write(fd, "mine", 4), 4);
    EXPECT_EQ(::close(fd), -1);
    EXPECT_EQ(errno, volume::kConflictErrno);
    EXPECT_EQ(readText(storage() / "Documents/notes.txt"), "changed on the phone");
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
        return readText(notes) == "twelve bytes" &&
               readText(mount() / "Documents/later.txt") == "made after the restart";
    })) << volume_->output();
}

TEST_F(MountedVolume, APokeMakesAFileMadeOnThePhoneVisibleAtOnce) {
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
}

class MountedLargeDirectory : public MountedVolume {
protected:
    void prepare(const fs::path& storage) override {
        fs::create_directories(storage / "many");
        for (int i = 0; i < 2500; ++i) {
            std::ofstream(storage / "many" / ("entry" + std::to_string(i)));
        }
    }
};

TEST_F(MountedLargeDirectory, ListsEveryEntryAcrossTheAppsPages) {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : fs::directory_iterator(mount() / "many")) {
        ++count;
    }
    EXPECT_EQ(count, 2500u);
}

class MountedLargeFile : public MountedVolume {
protected:
    void prepare(const fs::path& storage) override {
        writeFile(storage / "large.bin", 64 << 20, 'z');
    }
};

TEST_F(MountedLargeFile, UnpluggingThePhoneDuringALongReadFailsItWithAnIOError) {
    const int fd = ::open((mount() / "large.bin").c_str(), O_RDONLY);
    ASSERT_GE(fd, 0) << errno;
    std::vector<char> buffer(1 << 20);
    ASSERT_EQ(::read(fd, buffer.data(), buffer.size()), static_cast<ssize_t>(buffer.size()));
    stack_->phone().detach(ServiceStack::kDevice);
    auto rest = std::async(std::launch::async, [&] {
        for (;;) {
            const auto got = ::read(fd, buffer.data(), buffer.size());
            if (got <= 0) {
                return got < 0 ? errno : 0;
            }
        }
    });
    ASSERT_TRUE(testing::readyInTime(rest));
    EXPECT_EQ(rest.get(), EIO);
    ::close(fd);
}

}  // namespace
}  // namespace skiff::test
