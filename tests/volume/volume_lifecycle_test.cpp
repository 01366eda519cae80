// The volume's life as the service runs it: skiffd mounts it with the built mount.skiff
// (skiff-fs in the background), at the mount point under the test's own XDG_DATA_HOME,
// when the desktop or the phone asks, and takes it down when asked, when the phone goes,
// or by force when its file system died. Every skiff-fs the service started is gone or
// killed, and the mount point unmounted, when a test ends.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/json.hpp"
#include "common/run_sync.hpp"
#include "e2e/service_stack.hpp"
#include "mount/mount_table.hpp"
#include "support/file_text.hpp"

namespace skiff::test {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kLargeSize = 24 << 20;

std::optional<std::string> mountedType(const fs::path& mountPoint) {
    return mount::mountedTypeAt(readFile("/proc/self/mountinfo"), mountPoint.string());
}

// The live skiff-fs processes serving mountPoint: they were started by skiffd through
// mount.skiff and left its process tree, so they are found by their command line. A zombie
// (nobody may reap it here) counts as gone.
std::vector<pid_t> volumeProcesses(const fs::path& mountPoint) {
    std::vector<pid_t> pids;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const auto name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos) {
            continue;
        }
        const auto cmdline = readFile(entry.path() / "cmdline");
        const auto stat = readFile(entry.path() / "stat");
        const auto state = stat.rfind(") ");
        const bool zombie = state != std::string::npos && stat.compare(state + 2, 1, "Z") == 0;
        if (!zombie && cmdline.find("mount.skiff") != std::string::npos &&
            cmdline.find(mountPoint.string() + '\0') != std::string::npos) {
            pids.push_back(std::stoi(name));
        }
    }
    return pids;
}

struct CtlRun {
    int exitStatus = -1;
    std::string output;
};

class VolumeLifecycle : public ::testing::Test {
protected:
    void SetUp() override {
        if (::access("/dev/fuse", R_OK | W_OK) != 0 ||
            ::access("/usr/bin/fusermount3", X_OK) != 0) {
            GTEST_SKIP() << "FUSE is not available here: /dev/fuse or fusermount3 is missing";
        }
        stack_ = std::make_unique<ServiceStack>(
            [](const std::string& storage) {
                writeNotes(storage);
                std::ofstream(fs::path(storage) / "large.bin", std::ios::binary)
                    << std::string(kLargeSize, 'L');
            },
            std::vector<std::string>{"--mount-tool", buildPath("src/volume/mount.skiff")});
        // Beside the shared container, under the test's own data directory.
        mountPoint_ = fs::path(stack_->container()).parent_path() / "mnt";
    }

    void TearDown() override {
        if (!stack_) {
            return;
        }
        if (mountedType(mountPoint_)) {
            ChildProcess lazy({"/usr/bin/fusermount3", "-u", "-z", mountPoint_.string()});
            lazy.waitForExit(kE2eWait);
        }
        for (const pid_t pid : volumeProcesses(mountPoint_)) {
            ::kill(pid, SIGKILL);
        }
        EXPECT_TRUE(testing::eventually([&] { return volumeProcesses(mountPoint_).empty(); }));
        stack_.reset();
    }

    CtlRun ctl(std::vector<std::string> args) {
        args.insert(args.begin(), ctlProgram_);
        ChildProcess process(std::move(args), stack_->environment());
        const auto status = process.waitForExit(kE2eWait);
        process.waitForOutput(std::string_view("\0", 1), kE2eWait);
        return {status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1, process.output()};
    }

    // skiffctl status --json: the volume's state and mount point.
    std::pair<std::string, std::string> volumeStatus() {
        const auto run = ctl({"status", "--json"});
        EXPECT_EQ(run.exitStatus, 0) << run.output;
        const auto document = json::Json::parse(run.output, nullptr, false);
        if (!document.is_object()) {
            ADD_FAILURE() << "status printed no JSON object: " << run.output;
            return {};
        }
        return {document.value("volume", ""), document.value("mountPoint", "")};
    }

    // Mounted and serving the phone's files (the service may learn of the phone a moment
    // after the mount).
    void expectServing() {
        ASSERT_EQ(mountedType(mountPoint_), "fuse.skiff");
        ASSERT_TRUE(testing::eventually([&] {
            return readFile(mountPoint_ / "Documents/notes.txt") == "twelve bytes";
        })) << stack_->service().output();
    }

    void expectGone() {
        EXPECT_TRUE(testing::eventually([&] { return !mountedType(mountPoint_); }))
            << stack_->service().output();
        EXPECT_TRUE(testing::eventually([&] { return volumeProcesses(mountPoint_).empty(); }));
    }

    // The phone's mountControl push; retried until the app has a connection to push on.
    void pushMountControl(const std::string& action) {
        const std::string line = "push 3 {\"action\":\"" + action + "\"}";
        ASSERT_TRUE(testing::eventually(
            [&] { return stack_->phone().command(line).lines == std::vector<std::string>{"1"}; }));
    }

    std::unique_ptr<ServiceStack> stack_;
    fs::path mountPoint_;
    std::string ctlProgram_ = buildPath("src/ctl/skiffctl");
};

TEST_F(VolumeLifecycle, TheDesktopOrThePhoneMountsAndUnmountsTheVolumeAndStatusFollows) {
    EXPECT_EQ(volumeStatus(), std::make_pair(std::string("notMounted"), mountPoint_.string()));

    const auto mounted = ctl({"mount"});
    ASSERT_EQ(mounted.exitStatus, 0) << mounted.output << stack_->service().output();
    expectServing();
    // Its source is the anchor in the shared container.
    EXPECT_NE(readFile("/proc/self/mountinfo")
                  .find(" - fuse.skiff " + stack_->container() + "/source-anchor "),
              std::string::npos);
    EXPECT_EQ(volumeStatus(), std::make_pair(std::string("mounted"), mountPoint_.string()));
    // A second mount is refused and leaves the first serving.
    EXPECT_EQ(ctl({"mount"}).exitStatus, 1);
    expectServing();

    // An app that stops answering leaves a healthy volume waiting, never "broken".
    stack_->phone().command("fault silent on");
    const auto waiting = ctl({"status"});
    stack_->phone().command("fault silent off");
    EXPECT_NE(waiting.output.find("volume: mounted at " + mountPoint_.string()), std::string::npos)
        << waiting.output;
    EXPECT_EQ(waiting.output.find("broken"), std::string::npos) << waiting.output;

    const auto unmounted = ctl({"unmount"});
    ASSERT_EQ(unmounted.exitStatus, 0) << unmounted.output << stack_->service().output();
    expectGone();
    EXPECT_EQ(volumeStatus().first, "notMounted");
    EXPECT_EQ(ctl({"unmount"}).exitStatus, 1);

    // The phone's mountControl pushes do the same.
    pushMountControl("mount");
    ASSERT_TRUE(testing::eventually([&] { return mountedType(mountPoint_).has_value(); }))
        << stack_->service().output();
    expectServing();
    pushMountControl("unmount");
    expectGone();
}

TEST_F(VolumeLifecycle, ADeadFileSystemIsBrokenUntilForcedOffAndALostPhoneForcesTheVolumeOff) {
    ASSERT_EQ(ctl({"mount"}).exitStatus, 0) << stack_->service().output();
    expectServing();
    const auto pids = volumeProcesses(mountPoint_);
    ASSERT_EQ(pids.size(), 1u);
    ASSERT_EQ(::kill(pids.front(), SIGKILL), 0) << errno;
    ASSERT_TRUE(testing::eventually([&] { return volumeProcesses(mountPoint_).empty(); }));

    EXPECT_EQ(volumeStatus(), std::make_pair(std::string("broken"), mountPoint_.string()));
    EXPECT_NE(ctl({"status"}).output.find("volume: broken at"), std::string::npos);

    const auto cleared = ctl({"unmount", "--force"});
    EXPECT_EQ(cleared.exitStatus, 0) << cleared.output << stack_->service().output();
    expectGone();
    EXPECT_EQ(volumeStatus().first, "notMounted");
    // The mount point works again: the next mount serves.
    ASSERT_EQ(ctl({"mount"}).exitStatus, 0) << stack_->service().output();
    expectServing();

    // Losing the phone forces the volume off and fails its readers with an I/O error.
    const int fd = ::open((mountPoint_ / "large.bin").c_str(), O_RDONLY);
    ASSERT_GE(fd, 0) << errno;
    char byte = 0;
    ASSERT_EQ(::pread(fd, &byte, 1, 0), 1) << errno;

    stack_->phone().detach(ServiceStack::kDevice);
    EXPECT_TRUE(testing::eventually([&] { return !mountedType(mountPoint_); }))
        << stack_->service().output();
    // The reader still holding the file is answered, not left waiting: far from what it
    // read, nothing is cached.
    auto read = std::async(std::launch::async, [&] {
        std::vector<char> buffer(1 << 20);
        const auto got = ::pread(fd, buffer.data(), buffer.size(), kLargeSize - buffer.size());
        return got < 0 ? errno : 0;
    });
    ASSERT_TRUE(testing::readyInTime(read));
    EXPECT_EQ(read.get(), EIO);
    ::close(fd);
    // With its last user gone the file system ends.
    expectGone();
    EXPECT_EQ(volumeStatus().first, "notMounted");

    // Nothing saved at the mount point meanwhile lands on the local disk, and the volume
    // comes back by itself with the phone.
    std::ofstream(mountPoint_ / "saved.txt") << "kept where?";
    EXPECT_FALSE(fs::exists(mountPoint_ / "saved.txt"));
    stack_->phone().attach(ServiceStack::kDevice);
    ASSERT_TRUE(testing::eventually([&] { return mountedType(mountPoint_).has_value(); }))
        << stack_->service().output();
    expectServing();
}

TEST_F(VolumeLifecycle, AnInstalledServiceMountsThroughTheToolInstalledWithIt) {
    // Installed under a prefix the tree was not configured with, with no tool named: skiffd
    // finds the mount.skiff installed beside it.
    const TempDir prefix("skiff-install");
    ChildProcess install(
        {SKIFF_CMAKE_COMMAND, "--install", buildPath(""), "--prefix", prefix.path()}, {});
    const auto installed = install.waitForExit(kE2eWait);
    ASSERT_TRUE(installed && WIFEXITED(*installed) && WEXITSTATUS(*installed) == 0)
        << install.output();
    stack_.reset();
    stack_ = std::make_unique<ServiceStack>(writeNotes, std::vector<std::string>{},
                                            prefix.path() + "/bin/skiffd");
    mountPoint_ = fs::path(stack_->container()).parent_path() / "mnt";
    ctlProgram_ = prefix.path() + "/bin/skiffctl";

    const auto mounted = ctl({"mount"});
    ASSERT_EQ(mounted.exitStatus, 0) << mounted.output << stack_->service().output();
    expectServing();
    const auto unmounted = ctl({"unmount"});
    EXPECT_EQ(unmounted.exitStatus, 0) << unmounted.output << stack_->service().output();
    expectGone();
}

}  // namespace
}  // namespace skiff::test
