#include "mount/process_runner.hpp"

#include <gtest/gtest.h>
#include <signal.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <system_error>

#include "common/io_runtime.hpp"
#include "common/run_sync.hpp"
#include "mount/fake_volume.hpp"
#include "mount/mount_error.hpp"

namespace skiff::mount {
namespace {

using namespace std::chrono_literals;
using testing::FakeVolume;
using testing::outcomeOf;

class ProcessRunnerTest : public ::testing::Test {
protected:
    // A tool whose body is the given shell text.
    std::string tool(const std::string& name, const std::string& body) {
        const auto path = volume_.dir() / name;
        skiff::test::writeFile(path, "#!/bin/sh\n" + body + "\n");
        std::filesystem::permissions(path, std::filesystem::perms(0755));
        return path.string();
    }
    std::string runTimed(const std::string& path, std::chrono::milliseconds timeout) {
        return ::skiff::testing::runSync(runtime_.executor(),
                                         testing::outcomeOf(runCommandTimed(path, {}, timeout)));
    }

    FakeVolume volume_;
    runtime::IoRuntime runtime_{1};
    void SetUp() override { runtime_.start(); }
};

TEST_F(ProcessRunnerTest, FailuresAreReportedInTheToolsOwnWordsOrByStatusOrLaunchError) {
    struct Case {
        const char* name;
        const char* body;
        std::string expected;  // with the tool's path in place of %
    };
    // No tool at all: the launch failure names the path in the errno's own words.
    EXPECT_THROW(runCommand((volume_.dir() / "absent").string(), {}), std::system_error);
    const Case cases[] = {
        {"absent", nullptr, "could not launch %: No such file or directory"},
        {"quiet-success", "echo chatter; exit 0", "ok"},
        {"success-with-complaints", "echo warning >&2; exit 0", "ok"},
        {"silent-failure", "exit 1", "% exited with status 1"},
        {"busy", "printf '  busy \\n' >&2; exit 16", "busy"},
        {"blank-complaint", "printf ' \\t\\r\\n' >&2; exit 3", "% exited with status 3"},
        {"two-lines", "printf '\\nfirst\\nsecond\\n\\n' >&2; exit 1", "first\nsecond"},
        {"killed", "kill -9 $$", "% was stopped by signal 9"},
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
        const auto sync = outcomeOf([&] { runCommand(path, {}); });
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
}

TEST_F(ProcessRunnerTest, AHungToolIsTerminatedAndReapedWithTheFixedMessage) {
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

TEST_F(ProcessRunnerTest, ToolsStartWithSignalsOfTheirOwnWhateverTheServiceBlocks) {
    // skiffd blocks signals on its threads; a tool that inherited the mask could not be
    // terminated.
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    sigset_t saved;
    ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &term, &saved), 0);
    const auto path = tool("blocked",
                           "grep -q '^SigBlk:[[:space:]]*0*$' /proc/self/status || "
                           "{ grep SigBlk /proc/self/status >&2; exit 1; }");
    const auto outcome = outcomeOf([&] { runCommand(path, {}); });
    ::pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    EXPECT_EQ(outcome, "ok");
}

}  // namespace
}  // namespace skiff::mount
