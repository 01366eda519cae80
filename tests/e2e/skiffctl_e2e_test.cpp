// skiffctl as people and scripts use it: separate processes against a running skiffd.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <filesystem>
#include <string_view>

#include "common/json.hpp"
#include "e2e/skiffctl_fixture.hpp"
#include "support/file_text.hpp"

namespace skiff::test {
namespace {

using SkiffctlE2eTest = SkiffctlFixture;

// How many lines of the output are this JSON document.
std::size_t linesEqualTo(const std::string& output, std::string_view document) {
    const auto expected = json::parse(Bytes(document.begin(), document.end()));
    EXPECT_TRUE(expected) << document;
    std::size_t count = 0;
    for (const auto& line : jsonLines(output)) {
        count += expected && line == *expected;
    }
    return count;
}

constexpr std::int64_t kDesktopApp = 1;
constexpr std::string_view kServiceRunning = R"({"event":"service","running":true})";
constexpr std::string_view kServiceGone = R"({"event":"service","running":false})";
constexpr std::string_view kPhoneLeft =
    R"({"event":"device","udid":"SIM-E2E-0001","attached":false})";
constexpr std::string_view kPhoneCame =
    R"({"event":"device","udid":"SIM-E2E-0001","attached":true})";
constexpr std::string_view kBridgeDown =
    R"({"message":0,"name":"bridgeStateChanged","payload":{"source":2,"connected":false}})";

TEST_F(SkiffctlE2eTest, WatchersOutliveOtherCommandsAndSeeThePhoneComeAndGo) {
    auto desktop = registerWithPhone(stack_, kDesktopApp);
    std::unique_ptr<ChildProcess> watchers[] = {start({"watch"}), start({"watch"})};
    for (auto& watch : watchers) {
        ASSERT_TRUE(watch->waitForOutput(kServiceRunning, kE2eWait)) << watch->output();
    }

    // Commands that need no role leave the desktop app registered...
    for (const auto& args :
         std::vector<std::vector<std::string>>{{"version"}, {"echo"}, {"ingest", "1K"}}) {
        const auto ran = run(args);
        EXPECT_EQ(ran.exitStatus, 0) << args.front() << ": " << ran.output;
    }
    {  // a watcher that comes and goes too
        auto third = start({"watch"});
        ASSERT_TRUE(third->waitForOutput(kServiceRunning, kE2eWait)) << third->output();
    }
    EXPECT_EQ(run({"--role", "fileprovider", "ping", "desktop"}).exitStatus, 0);
    EXPECT_TRUE(watchers[0]->waitForOutput(R"("role":"fileprovider","holder":""})", kE2eWait));
    // ...while a look-up still registers as the desktop app by default, and takes its
    // place for as long as it runs.
    const auto lookup = run({"lookup", "Documents/notes.txt"});
    EXPECT_EQ(lookup.exitStatus, 0) << lookup.output;
    EXPECT_EQ(run({"--role", "fileprovider", "ping", "desktop"}).exitStatus, 1);

    // One more that ends after its first line, which is the phone leaving.
    auto once = start({"watch", "--count", "1"});
    ASSERT_TRUE(once->waitForOutput(kServiceRunning, kE2eWait)) << once->output();
    stack_.phone().detach(ServiceStack::kDevice);
    const auto watchedOnce = finish(*once);
    EXPECT_EQ(watchedOnce.exitStatus, 0);
    EXPECT_EQ(linesEqualTo(watchedOnce.output, kBridgeDown), 1u) << watchedOnce.output;
    for (auto& watch : watchers) {
        EXPECT_TRUE(watch->waitForOutput(kPhoneLeft, kE2eWait)) << watch->output();
        EXPECT_TRUE(watch->waitForOutput(kBridgeDown, kE2eWait)) << watch->output();
    }
    stack_.phone().attach(ServiceStack::kDevice);
    for (auto& watch : watchers) {
        EXPECT_TRUE(watch->waitForOutput(kPhoneCame, kE2eWait)) << watch->output();
        const int status = watch->stop();
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        EXPECT_EQ(linesEqualTo(watch->output(), kServiceGone), 0u) << watch->output();
    }
}

TEST_F(SkiffctlE2eTest, WatchWaitsForSkiffdOrExitsWhenItGoes) {
    auto waiting = start({"watch"});
    auto leaving = start({"watch", "--exit-on-loss"});
    for (auto* watch : {waiting.get(), leaving.get()}) {
        ASSERT_TRUE(watch->waitForOutput(kServiceRunning, kE2eWait)) << watch->output();
    }

    stack_.service().stop();
    const auto left = finish(*leaving);
    EXPECT_EQ(left.exitStatus, 2) << left.output;
    EXPECT_EQ(linesEqualTo(left.output, kServiceGone), 1u) << left.output;
    ASSERT_TRUE(waiting->waitForOutput("skiffd went away; waiting for it", kE2eWait))
        << waiting->output();
    EXPECT_EQ(linesEqualTo(waiting->output(), kServiceGone), 1u) << waiting->output();

    // Started while skiffd is away: one gives up at once, the other waits.
    const auto absent = run({"watch", "--exit-on-loss"});
    EXPECT_EQ(absent.exitStatus, 2) << absent.output;
    EXPECT_EQ(linesEqualTo(absent.output, kServiceGone), 1u) << absent.output;
    auto early = start({"watch"});
    ASSERT_TRUE(early->waitForOutput("skiffd is not running; waiting for it", kE2eWait))
        << early->output();

    // The next skiffd is heard by both, from its name to its signals.
    stack_.restartService();
    auto desktop = registerWithPhone(stack_, kDesktopApp);
    stack_.phone().detach(ServiceStack::kDevice);
    for (auto* watch : {waiting.get(), early.get()}) {
        EXPECT_TRUE(watch->waitForOutput(kPhoneLeft, kE2eWait)) << watch->output();
        EXPECT_NE(watch->output().find("skiffd is running; watching it"), std::string::npos);
        EXPECT_FALSE(watch->waitForExit({}));
    }
    EXPECT_EQ(linesEqualTo(waiting->output(), kServiceRunning), 2u) << waiting->output();
    EXPECT_EQ(linesEqualTo(early->output(), kServiceRunning), 1u) << early->output();
}

// One-shot commands on one running stack, in sections; the item commands come last, as
// they move the notes.
TEST_F(SkiffctlE2eTest, CommandsAnswerWithTheirResultsOrSayWhyAndExitAccordingly) {
    auto desktop = registerWithPhone(stack_, kDesktopApp);
    TempDir dir("skiff-ctl-files");
    {
        // First, while no file provider has come and gone.
        SCOPED_TRACE("exit statuses");
        const auto missing = dir.path() + "/missing";
        const auto noBus = "unix:path=" + dir.path() + "/no-bus";
        const auto feed = dir.path() + "/feed";
        writeFile(feed, "<rss><channel><item><version>999</version></item></channel></rss>");
        struct Case {
            std::vector<std::string> args;
            int status;
            std::string says;
        };
        const std::vector<Case> cases = {
            {{"--version"}, 0, "skiffctl "},
            {{"status", "--json"}, 0, "\"fileProviderRegistered\":false"},
            {{"no-such-command"}, 4, ""},
            {{"pull"}, 4, "identifier is required"},
            {{"echo", "--count", "-5"}, 4, ""},
            {{"ingest", "65M"}, 4, "one bus message carries no more"},
            {{"--bogus", "version"}, 4, ""},
            {{"--timeout", "abc", "version"}, 4, "--timeout"},
            {{"--bus", noBus, "version"}, 2, ""},
            {{"--bus", noBus, "update-check", feed}, 0, "could not compare"},
            {{"ping", "usbmux"}, 1, "ping usbmux: no"},
            {{"lookup", "/Documents/notes.txt"}, 0, "notes.txt"},
            {{"ls", "/"}, 0, "Documents/"},
            {{"lookup", "Documents/none"}, 1, "not found on the phone"},
            {{"push", missing, "Documents/x"}, 3, "cannot read"},
            {{"relay", "2", "--body", missing}, 3, "cannot read"},
            {{"pull", "Documents/notes.txt", missing + "/in/no/folder"}, 3, "cannot write"},
            {{"pull", "Documents/absent.txt", dir.path()}, 1, "not found on the phone"},
            {{"pull", "Documents", dir.path()}, 1, "that is a folder"},
            {{"push", feed, "Documents"}, 1, "that is a folder"},
            {{"push", feed, "Nope/feed"}, 1, "\"Nope\": no such folder on the phone"},
        };
        for (const auto& c : cases) {
            // A client that cannot reach its bus is not leak-checked (as before).
            const auto ran = run(c.args, {"ASAN_OPTIONS=detect_leaks=0"});
            EXPECT_EQ(ran.exitStatus, c.status) << c.args.front() << ": " << ran.output;
            EXPECT_NE(ran.output.find(c.says), std::string::npos) << ran.output;
            // In words: no numbers in place of names, nothing of the service's own log, and
            // a wrong command line in one line.
            EXPECT_EQ(ran.output.find("status "), std::string::npos) << ran.output;
            EXPECT_EQ(ran.output.find(":XPC] "), std::string::npos) << ran.output;
            if (c.status == 4 && c.args.front() != "--version") {
                EXPECT_EQ(std::count(ran.output.begin(), ran.output.end(), '\n'), 1) << ran.output;
            }
        }
    }
    {
        SCOPED_TRACE("lookup");
        const auto found =
            run({"--role", "fileprovider", "--json", "lookup", "Documents/notes.txt"});
        ASSERT_EQ(found.exitStatus, 0) << found.output;
        const auto summary = jsonLines(found.output);
        ASSERT_EQ(summary.size(), 1u) << found.output;
        EXPECT_EQ(summary[0].value("size", 0), 12);
        EXPECT_EQ(summary[0].value("filename", ""), "notes.txt");

        // Without registering, the service refuses to relay.
        const auto refused = run({"--role", "none", "--json", "relay", "2"});
        EXPECT_EQ(refused.exitStatus, 1);
        EXPECT_NE(refused.output.find(R"("status":1)"), std::string::npos) << refused.output;
    }
    {
        SCOPED_TRACE("measurements need a file provider, and skiffctl can be one");
        for (const char* command : {"host-to-ext", "ext-to-host"}) {
            EXPECT_EQ(run({"--role", "fileprovider", command, "64K", "4"}).exitStatus, 0);
            EXPECT_EQ(run({"--role", "none", command, "64K", "4"}).exitStatus, 1) << command;
        }
    }
    {
        SCOPED_TRACE("item commands");
        namespace fs = std::filesystem;
        const fs::path storage = stack_.storage();
        ASSERT_EQ(run({"mkdir", "Documents/new"}).exitStatus, 0);
        EXPECT_TRUE(fs::is_directory(storage / "Documents/new"));

        const auto moved = run({"--json", "mv", "Documents/notes.txt", "Documents/new/n.txt"});
        ASSERT_EQ(moved.exitStatus, 0) << moved.output;
        const auto movedLines = jsonLines(moved.output);
        ASSERT_EQ(movedLines.size(), 1u) << moved.output;
        EXPECT_EQ(movedLines[0]["item"].value("identifier", ""), "Documents/new/n.txt");
        EXPECT_EQ(movedLines[0].value("status", -1), 0);

        const auto listed = run({"ls", "-l", "Documents"});
        EXPECT_EQ(listed.exitStatus, 0) << listed.output;
        EXPECT_TRUE(listed.output.starts_with("d ")) << listed.output;
        EXPECT_TRUE(listed.output.ends_with(" UTC  new/\n")) << listed.output;
        const auto inside = run({"--json", "ls", "Documents/new"});
        ASSERT_EQ(jsonLines(inside.output).size(), 1u) << inside.output;
        const auto items = jsonLines(inside.output)[0]["items"];
        ASSERT_EQ(items.size(), 1u) << inside.output;
        EXPECT_EQ(items[0].value("size", 0), 12);

        // Refusals: in words, and the numbers with --json.
        const std::vector<std::pair<std::vector<std::string>, std::string>> refusals = {
            {{"rm", "/Documents/"}, "directory not empty"},
            {{"mkdir", "Documents/new"}, "already exists on the phone"},
            {{"ls", "Documents/none"}, "no such folder on the phone"},
            {{"ls", "Documents/new/n.txt"}, "that is not a folder"},
            {{"mv", "Documents/new/n.txt", "Documents"}, "that is a folder"},
            {{"rm", "Documents/../x"}, "not a valid identifier"},
        };
        for (const auto& [args, words] : refusals) {
            const auto refused = run(args);
            EXPECT_EQ(refused.exitStatus, 1) << refused.output;
            EXPECT_NE(refused.output.find(words), std::string::npos) << refused.output;
        }
        EXPECT_EQ(linesEqualTo(run({"--json", "rm", "Documents"}).output,
                               R"({"status":9,"detail":3,"error":"directory not empty"})"),
                  1u);

        // What ls prints can be typed back: the phone's unusable names are left out, said
        // once, and a path typed with doubled slashes names the same item.
        stack_.phone().command("fault bad-names on");
        const auto hostile = run({"ls", "Documents"});
        stack_.phone().command("fault bad-names off");
        EXPECT_EQ(hostile.exitStatus, 0) << hostile.output;
        EXPECT_TRUE(hostile.output.starts_with("new/\n")) << hostile.output;
        EXPECT_NE(hostile.output.find("left out 5 entries"), std::string::npos) << hostile.output;
        EXPECT_EQ(run({"ls", "//Documents//new//"}).output, "n.txt\n");

        ASSERT_EQ(run({"rm", "Documents/new/n.txt"}).exitStatus, 0);
        ASSERT_EQ(run({"rm", "Documents/new/"}).exitStatus, 0);
        EXPECT_EQ(run({"ls", "Documents/"}).output, "");
        EXPECT_FALSE(fs::exists(storage / "Documents/new"));
    }
    stack_.phone().detach(ServiceStack::kDevice);
    const auto noPhone = run({"ls"});
    EXPECT_EQ(noPhone.exitStatus, 1);
    EXPECT_NE(noPhone.output.find("no phone is attached"), std::string::npos) << noPhone.output;
}

}  // namespace
}  // namespace skiff::test
