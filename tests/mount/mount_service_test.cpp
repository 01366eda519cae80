// The mount service over fake tools and a fake mount table: its tool runner, and the
// phone's volume requests that drive it.
#include "mount/mount_service.hpp"

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <future>
#include <string>
#include <system_error>
#include <vector>

#include "common/byte_text.hpp"
#include "common/io_runtime.hpp"
#include "common/log.hpp"
#include "common/run_sync.hpp"
#include "common/uuid.hpp"
#include "mount/fake_volume.hpp"
#include "mount/phone_volume_requests.hpp"
#include "mount/process_runner.hpp"

namespace skiff::mount {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::FakeVolume;
using Calls = std::vector<std::string>;
using Lines = std::vector<std::string>;
using ::skiff::testing::bytesOf;
using ::skiff::testing::runSync;

class CountingListener : public VolumeListener {
public:
    void volumeDidMount() override { ++mounts; }
    void volumeDidUnmount() override { ++unmounts; }
    std::atomic<int> mounts{0};
    std::atomic<int> unmounts{0};
};

class MountServiceTest : public ::testing::Test {
protected:
    void SetUp() override { runtime_.start(); }

    std::string outcomeOf(asio::awaitable<void> call) {
        return runSync(runtime_.executor(), testing::outcomeOf(std::move(call)));
    }
    std::string mp() const { return volume_.mountPoint().string(); }
    std::string anchor() const { return (volume_.container() / "source-anchor").string(); }

    // A tool whose body is the given shell text.
    std::string tool(const std::string& name, const std::string& body) {
        const auto path = volume_.dir() / name;
        skiff::test::writeFile(path, "#!/bin/sh\n" + body + "\n");
        fs::permissions(path, fs::perms(0755));
        return path.string();
    }
    std::string runTimed(const std::string& path, std::chrono::milliseconds timeout) {
        return outcomeOf(runCommandTimed(path, {}, timeout));
    }

    // The lines a phone's request logged.
    Lines mountControl(const std::string& body) {
        capture_.clear();
        runSync(runtime_.executor(), requests_->handleMountControl(bytesOf(body)));
        return capture_.messages();
    }
    Lines poke(const std::string& relayID, const std::string& kind = "created") {
        capture_.clear();
        const std::string body = R"({"kind":")" + kind + R"(","relayID":")" + relayID + R"("})";
        runSync(runtime_.executor(), requests_->handleItemPoke(bytesOf(body)));
        return capture_.messages();
    }

    FakeVolume volume_;
    runtime::IoRuntime runtime_{1};
    std::shared_ptr<MountService> shared_ = std::make_shared<MountService>(volume_.options());
    MountService& service_ = *shared_;
    std::shared_ptr<CountingListener> listener_ = std::make_shared<CountingListener>();
    std::shared_ptr<PhoneVolumeRequests> requests_ =
        std::make_shared<PhoneVolumeRequests>(shared_, listener_);
    log::LogCapture capture_;
};

TEST_F(MountServiceTest, MountPreparesBothDirectoriesRunsTheHelperThenOpensTheVolume) {
    EXPECT_FALSE(service_.isMounted());
    // A file browser that fails does not fail the mount.
    volume_.failWith("xdg-open", "no display");
    EXPECT_EQ(outcomeOf(service_.mount()), "ok");
    EXPECT_TRUE(service_.isMounted());
    EXPECT_TRUE(fs::is_directory(anchor()));
    EXPECT_TRUE(fs::is_directory(mp()));
    EXPECT_EQ(volume_.calls(), (Calls{"mount.skiff " + anchor() + " " + mp(), "xdg-open " + mp()}));

    // Mounting again runs nothing at all.
    EXPECT_EQ(outcomeOf(service_.mount()), "Skiff is already mounted.");
    EXPECT_EQ(volume_.calls().size(), 2u);

    EXPECT_EQ(outcomeOf(service_.unmount(false)), "ok");
    EXPECT_FALSE(service_.isMounted());
    EXPECT_EQ(volume_.calls().back(), "fusermount3 -u " + mp());
    // Nothing saved there meanwhile can land on the local disk.
    EXPECT_FALSE(fs::exists(mp()));
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
             fs::create_directories(volume_.mountPoint().parent_path());
             skiff::test::writeFile(volume_.mountPoint(), "");
         },
         "Mount point exists but is not a directory: " + mp()},
        {"a regular file at the source anchor",
         [&] {
             fs::create_directories(volume_.container());
             skiff::test::writeFile(anchor(), "");
         },
         "Passthrough source directory is unavailable: " + anchor()},
        {"a file saved in the mount point's folder",
         [&] {
             fs::create_directories(volume_.mountPoint());
             skiff::test::writeFile(volume_.mountPoint() / "saved.txt", "");
         },
         "The mount point " + mp() +
             " is not empty: what is in it would be hidden under the volume. Move it elsewhere, "
             "then mount again."},
    };
    for (const auto& c : cases) {
        fs::remove_all(volume_.dir() / "Harbor data");
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
    fs::remove(volume_.dir() / "fail-mount.skiff");
    EXPECT_EQ(outcomeOf(service_.mount()), "ok");
    EXPECT_TRUE(service_.isMounted());

    // A table that cannot be read counts as nothing mounted.
    fs::remove(volume_.table());
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
            fs::remove(volume_.dir() / (std::string(prefix) + "fusermount3"));
        }
        fs::remove(volume_.dir() / "calls");
        ASSERT_EQ(outcomeOf(service_.mount()), "ok") << c.name;
        c.arrange();
        // Short, so that the hang costs little; the tool's message keeps its fixed figure.
        EXPECT_EQ(outcomeOf(service_.unmountGracefully(300ms)), c.expected) << c.name;
        EXPECT_EQ(fs::exists(mp()), service_.isMounted()) << c.name;
        const auto calls = volume_.calls();
        EXPECT_EQ(Calls(calls.begin() + 2, calls.end()), c.unmountCalls) << c.name;
        fs::remove(volume_.dir() / "fail-fusermount3");
        if (service_.isMounted()) {
            ASSERT_EQ(outcomeOf(service_.unmount(true)), "ok");
        }
    }
    const pid_t hung = volume_.hungPid("fusermount3");
    EXPECT_TRUE(
        ::skiff::testing::eventually([&] { return ::kill(hung, 0) != 0 && errno == ESRCH; }));
}

TEST_F(MountServiceTest, StartCleanUpRemovesTransferFilesAndTheEmptyMountPointOnly) {
    const auto container = volume_.container();
    const std::string transfer = "transfer_" + Uuid::random().text();
    const std::vector<fs::path> leftovers = {container / (transfer + ".part"),
                                             container / (transfer + ".bin")};
    // The volume's local copies, the source anchor and files of other names stay.
    const std::vector<fs::path> kept = {container / "volume" / (transfer + ".bin"),
                                        container / "source-anchor" / (transfer + ".bin"),
                                        container / "transfer_notes.bin", container / "notes.txt"};
    for (const auto* files : {&leftovers, &kept}) {
        for (const auto& file : *files) {
            fs::create_directories(file.parent_path());
            skiff::test::writeFile(file, "x");
        }
    }
    fs::create_directories(mp());
    service_.cleanUpAfterEarlierRun();
    EXPECT_FALSE(fs::exists(mp()));
    for (const auto& file : leftovers) {
        EXPECT_FALSE(fs::exists(file)) << file;
    }
    for (const auto& file : kept) {
        EXPECT_TRUE(fs::exists(file)) << file;
    }
    // A volume that outlived the earlier run keeps its mount point.
    ASSERT_EQ(outcomeOf(service_.mount()), "ok");
    service_.cleanUpAfterEarlierRun();
    EXPECT_TRUE(fs::is_directory(mp()));
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

TEST_F(MountServiceTest, MountControlActsThenTellsTheListenerOnlyOnSuccess) {
    for (const char* body : {R"({"action":"Mount"})", R"({"action":5})", "{}", "mount", ""}) {
        EXPECT_EQ(mountControl(body), Lines{"mountControl decode failed"}) << body;
    }
    EXPECT_EQ(mountControl(R"({"action":"unmount"})"),
              Lines{"mountControl unmount failed: Skiff is not mounted."});
    EXPECT_EQ(mountControl(R"({"action":"mount"})"), Lines{"mountControl mount ok"});
    EXPECT_EQ(mountControl(R"({"action":"mount"})"),
              Lines{"mountControl mount failed: Skiff is already mounted."});
    EXPECT_EQ(listener_->mounts, 1);
    EXPECT_EQ(listener_->unmounts, 0);

    EXPECT_EQ(mountControl(R"({"action":"unmount"})"), Lines{"mountControl unmount ok"});
    EXPECT_FALSE(service_.isMounted());
    EXPECT_EQ(listener_->mounts, 1);
    EXPECT_EQ(listener_->unmounts, 1);
}

TEST_F(MountServiceTest, PokesTouchOnlyItemsInsideTheMountPoint) {
    const auto mp = volume_.mountPoint();
    fs::create_directories(mp / "dir");
    skiff::test::writeFile(mp / "dir" / "a b.txt", "x");
    // Outside the mount point, where a ".." would lead.
    skiff::test::writeFile(volume_.dir() / "Harbor data" / "outside", "x");
    const auto old = fs::file_time_type::clock::now() - 24h;
    for (const auto& item : {mp / "dir" / "a b.txt", volume_.dir() / "Harbor data" / "outside"}) {
        fs::last_write_time(item, old);
    }

    const std::string ignored = "itemMutation poke ignored: invalid relayID";
    for (const char* relayID : {"", "   ", "\\t\\n", "/dir/a b.txt", "  /dir", "..", "../outside",
                                "dir/../../outside", "dir/..", "dir/a\\u0000/../../outside"}) {
        EXPECT_EQ(poke(relayID), Lines{ignored}) << relayID;
    }
    EXPECT_EQ(poke("x", "moved"), Lines{"itemMutation poke decode failed"});

    const std::string missing = (mp / "missing.txt").string();
    EXPECT_EQ(
        poke("missing.txt", "deleted"),
        (Lines{"itemMutation poke path=" + missing,
               "itemMutation poke kind=deleted path=" + missing + ": No such file or directory"}));

    const std::string item = (mp / "dir" / "a b.txt").string();
    EXPECT_EQ(poke(" dir/a b.txt\\r\\n"),
              (Lines{"itemMutation poke path=" + item,
                     "itemMutation poke ok kind=created path=" + item}));
    EXPECT_GT(fs::last_write_time(item), old + 23h);
    EXPECT_EQ(fs::last_write_time(volume_.dir() / "Harbor data" / "outside"), old);
    EXPECT_EQ(listener_->mounts + listener_->unmounts, 0);
}

TEST_F(MountServiceTest, FailuresAreReportedInTheToolsOwnWordsOrByStatusOrLaunchError) {
    struct Case {
        const char* name;
        const char* body;
        std::string expected;  // with the tool's path in place of %
    };
    // No tool at all: the launch failure names the path in the errno's own words.
    EXPECT_THROW(runCommand((volume_.dir() / "absent").string(), {}), std::system_error);
    // skiffd blocks signals on its threads; a tool that inherited the mask could not be
    // terminated.
    sigset_t term, saved;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &term, &saved), 0);
    const Case cases[] = {
        {"absent", nullptr, "could not launch %: No such file or directory"},
        {"quiet-success", "echo chatter; exit 0", "ok"},
        {"success-with-complaints", "echo warning >&2; exit 0", "ok"},
        {"silent-failure", "exit 1", "% exited with status 1"},
        {"busy", "printf '  busy \\n' >&2; exit 16", "busy"},
        {"blank-complaint", "printf ' \\t\\r\\n' >&2; exit 3", "% exited with status 3"},
        {"two-lines", "printf '\\nfirst\\nsecond\\n\\n' >&2; exit 1", "first\nsecond"},
        {"killed", "kill -9 $$", "% was stopped by signal 9"},
        {"own-signals", "grep -q '^SigBlk:[[:space:]]*0*$' /proc/self/status || exit 1", "ok"},
        // More than a pipe holds: the runs drain standard error while they wait (and
        // keep only the start of it).
        {"flood", "head -c 200000 /dev/zero | tr '\\0' x >&2; echo end >&2; exit 1", ""},
    };
    for (const auto& c : cases) {
        const auto path = c.body ? tool(c.name, c.body) : (volume_.dir() / c.name).string();
        std::string expected = c.expected;
        if (const auto at = expected.find('%'); at != std::string::npos) {
            expected.replace(at, 1, path);
        }
        std::string sync = "ok";
        try {
            runCommand(path, {});
        } catch (const std::exception& error) {
            sync = testing::describe(error);
        }
        const auto timed = runTimed(path, 20s);
        if (expected.empty()) {
            for (const auto& outcome : {sync, timed}) {
                EXPECT_EQ(outcome.find_first_not_of('x'), std::string::npos) << c.name;
                EXPECT_GT(outcome.size(), 1000u) << c.name;
            }
            continue;
        }
        EXPECT_EQ(sync, expected) << c.name;
        EXPECT_EQ(timed, expected) << c.name;
    }
    ::pthread_sigmask(SIG_SETMASK, &saved, nullptr);
}

TEST_F(MountServiceTest, AHungToolIsTerminatedAndReapedWithTheFixedMessage) {
    // The second ignores the polite request and has to be killed.
    const struct {
        const char* name;
        const char* body;
    } cases[] = {
        {"hangs", "echo $$ > \"$(dirname \"$0\")/pid-hangs\"; exec sleep 60"},
        {"stubborn",
         "trap '' TERM; echo $$ > \"$(dirname \"$0\")/pid-stubborn\"; while :; do sleep 1; done"},
    };
    for (const auto& c : cases) {
        const auto path = tool(c.name, c.body);
        // A short time-out here; the message keeps the figure the callers use.
        EXPECT_EQ(runTimed(path, 200ms), "timedOut: " + path + " did not finish within 3.0s");
        const pid_t pid = volume_.hungPid(c.name);
        // Reaped, not only signalled: the pid names no process, not even a zombie.
        EXPECT_TRUE(::skiff::testing::eventually([&] {
            return ::kill(pid, 0) != 0 && errno == ESRCH;
        })) << c.name;
    }
}

}  // namespace
}  // namespace skiff::mount
