#include "mount/mount_service.hpp"

#include <gtest/gtest.h>
#include <signal.h>

#include <cerrno>
#include <chrono>
#include <future>
#include <string>
#include <system_error>
#include <vector>

#include "common/io_runtime.hpp"
#include "common/run_sync.hpp"
#include "mount/fake_volume.hpp"

namespace skiff::mount {
namespace {

using namespace std::chrono_literals;
using testing::FakeVolume;
using Calls = std::vector<std::string>;
using ::skiff::testing::runSync;

class MountServiceTest : public ::testing::Test {
protected:
    void SetUp() override { runtime_.start(); }

    std::string outcomeOf(asio::awaitable<void> call) {
        return runSync(runtime_.executor(), testing::outcomeOf(std::move(call)));
    }
    std::string mp() const { return volume_.mountPoint().string(); }
    std::string anchor() const { return (volume_.container() / "source-anchor").string(); }

    FakeVolume volume_;
    runtime::IoRuntime runtime_{1};
    MountService service_{volume_.options()};
};

TEST_F(MountServiceTest, MountPreparesBothDirectoriesRunsTheHelperThenOpensTheVolume) {
    EXPECT_FALSE(service_.isMounted());
    // A file browser that fails does not fail the mount.
    volume_.failWith("xdg-open", "no display");
    EXPECT_EQ(outcomeOf(service_.mount()), "ok");
    EXPECT_TRUE(service_.isMounted());
    EXPECT_TRUE(std::filesystem::is_directory(anchor()));
    EXPECT_TRUE(std::filesystem::is_directory(mp()));
    EXPECT_EQ(volume_.calls(), (Calls{"mount.skiff " + anchor() + " " + mp(), "xdg-open " + mp()}));

    // Mounting again runs nothing at all.
    EXPECT_EQ(outcomeOf(service_.mount()), "Skiff is already mounted.");
    EXPECT_EQ(volume_.calls().size(), 2u);

    EXPECT_EQ(outcomeOf(service_.unmount(false)), "ok");
    EXPECT_FALSE(service_.isMounted());
    EXPECT_EQ(volume_.calls().back(), "fusermount3 -u " + mp());
    EXPECT_EQ(outcomeOf(service_.unmount(true)), "Skiff is not mounted.");
}

TEST_F(MountServiceTest, WhatStandsInTheWayOfAMountStopsItBeforeAnyTool) {
    struct Case {
        const char* name;
        std::function<void()> arrange;
        std::string expected;
    };
    const std::vector<Case> cases = {
        {"a regular file at the mount point",
         [&] {
             std::filesystem::create_directories(volume_.mountPoint().parent_path());
             skiff::test::writeFile(volume_.mountPoint(), "");
         },
         "Mount point exists but is not a directory: " + mp()},
        {"a regular file at the source anchor",
         [&] {
             std::filesystem::create_directories(volume_.container());
             skiff::test::writeFile(anchor(), "");
         },
         "Passthrough source directory is unavailable: " + anchor()},
    };
    for (const auto& c : cases) {
        std::filesystem::remove_all(volume_.dir() / "Harbor data");
        c.arrange();
        EXPECT_EQ(outcomeOf(service_.mount()), c.expected) << c.name;
        EXPECT_TRUE(volume_.calls().empty()) << c.name;
    }
}

TEST_F(MountServiceTest, AnotherFileSystemAtTheMountPointIsNotTheVolume) {
    volume_.addMount("tmpfs");
    EXPECT_FALSE(service_.isMounted());
    EXPECT_EQ(outcomeOf(service_.unmount(true)), "Skiff is not mounted.");
    EXPECT_EQ(outcomeOf(service_.unmountGracefully(3s)), "Skiff is not mounted.");
    EXPECT_TRUE(volume_.calls().empty());
    volume_.failWith("mount.skiff", "fuse: device not found\n");
    EXPECT_EQ(outcomeOf(service_.mount()), "fuse: device not found");
    std::filesystem::remove(volume_.dir() / "fail-mount.skiff");
    EXPECT_EQ(outcomeOf(service_.mount()), "ok");
    EXPECT_TRUE(service_.isMounted());

    // A table that cannot be read counts as nothing mounted.
    std::filesystem::remove(volume_.table());
    EXPECT_FALSE(service_.isMounted());
}

TEST_F(MountServiceTest, AGracefulUnmountFallsBackToForceOnlyWhileStillMounted) {
    struct Case {
        const char* name;
        std::function<void()> arrange;
        std::string expected;
        Calls unmountCalls;
    };
    const std::string plain = "fusermount3 -u " + mp();
    const std::string forced = "fusermount3 -u -z " + mp();
    const std::vector<Case> cases = {
        {"it goes at once", [] {}, "ok", {plain}},
        {"it hangs past the time-out",
         [&] { volume_.hang("fusermount3", "-u " + mp()); },
         "ok",
         {plain, forced}},
        {"it is busy", [&] { volume_.failWith("fusermount3", "busy"); }, "busy", {plain, forced}},
        {"it complains but the volume went anyway",
         [&] { volume_.failAfterWork("fusermount3"); },
         "ok",
         {plain}},
    };
    for (const auto& c : cases) {
        for (const char* prefix : {"hang-", "fail-", "fail-after-"}) {
            std::filesystem::remove(volume_.dir() / (std::string(prefix) + "fusermount3"));
        }
        std::filesystem::remove(volume_.dir() / "calls");
        ASSERT_EQ(outcomeOf(service_.mount()), "ok") << c.name;
        c.arrange();
        // Short, so that the hang costs little; the tool's message keeps its fixed figure.
        EXPECT_EQ(outcomeOf(service_.unmountGracefully(300ms)), c.expected) << c.name;
        const auto calls = volume_.calls();
        EXPECT_EQ(Calls(calls.begin() + 2, calls.end()), c.unmountCalls) << c.name;
        std::filesystem::remove(volume_.dir() / "fail-fusermount3");
        if (service_.isMounted()) {
            ASSERT_EQ(outcomeOf(service_.unmount(true)), "ok");
        }
    }
    const pid_t hung = volume_.hungPid("fusermount3");
    EXPECT_TRUE(
        ::skiff::testing::eventually([&] { return ::kill(hung, 0) != 0 && errno == ESRCH; }));
}

TEST_F(MountServiceTest, TheCallersLoopKeepsTurningWhileTheHelperRuns) {
    // mount.skiff asks the service over the bus before it returns; here it waits for a
    // file that only a handler on the caller's one-thread loop writes.
    const auto answer = volume_.dir() / "answer";
    const std::string helper = volume_.options().mountTool;
    const std::string body = skiff::test::readFile(helper);
    const std::string wait = "i=0; while [ ! -e '" + answer.string() +
                             "' ] && [ $i -lt 200 ]; do sleep 0.05; i=$((i+1)); done\n" + "[ -e '" +
                             answer.string() + "' ] || { echo no answer >&2; exit 1; }\n";
    skiff::test::writeFile(
        helper, body.substr(0, body.find('\n') + 1) + wait + body.substr(body.find('\n') + 1));
    auto mounted =
        asio::co_spawn(runtime_.executor(), testing::outcomeOf(service_.mount()), asio::use_future);
    asio::post(runtime_.executor(), [answer] { skiff::test::writeFile(answer, "yes"); });
    ASSERT_TRUE(::skiff::testing::readyInTime(mounted));
    EXPECT_EQ(mounted.get(), "ok");
    EXPECT_TRUE(service_.isMounted());
}

}  // namespace
}  // namespace skiff::mount
