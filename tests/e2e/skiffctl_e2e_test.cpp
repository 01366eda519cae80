// skiffctl as people and scripts use it: separate processes against a running skiffd.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <sstream>

#include "common/json.hpp"
#include "e2e/service_stack.hpp"

namespace skiff::test {
namespace {

struct CtlRun {
    int exitStatus = -1;
    std::string output;  // standard output and standard error together
};

class SkiffctlE2eTest : public ::testing::Test {
protected:
    std::unique_ptr<ChildProcess> start(std::vector<std::string> args,
                                        std::vector<std::string> extraEnv = {}) {
        args.insert(args.begin(), buildPath("src/ctl/skiffctl"));
        auto env = stack_.environment();
        env.insert(env.end(), extraEnv.begin(), extraEnv.end());
        return std::make_unique<ChildProcess>(std::move(args), std::move(env));
    }

    CtlRun run(std::vector<std::string> args, std::vector<std::string> extraEnv = {}) {
        return finish(*start(std::move(args), std::move(extraEnv)));
    }

    static CtlRun finish(ChildProcess& process) {
        const auto status = process.waitForExit(kE2eWait);
        // The exit can be seen before the last output is read; waitForOutput returns once
        // the output has ended when the text never comes.
        process.waitForOutput(std::string_view("\0", 1), kE2eWait);
        CtlRun result;
        result.output = process.output();
        if (status && WIFEXITED(*status)) {
            result.exitStatus = WEXITSTATUS(*status);
        }
        return result;
    }

    ServiceStack stack_{writeNotes};
};

std::vector<json::Json> jsonLines(const std::string& output) {
    std::vector<json::Json> lines;
    std::istringstream in(output);
    for (std::string line; std::getline(in, line);) {
        auto parsed = json::parse(Bytes(line.begin(), line.end()));
        if (parsed) {
            lines.push_back(std::move(*parsed));
        }
    }
    return lines;
}

TEST_F(SkiffctlE2eTest, WatchPrintsThePhoneLeavingAsAJsonLine) {
    auto watch = start({"watch", "--count", "3"});
    ASSERT_TRUE(watch->waitForOutput(R"("payload":{"source":2,"connected":true})", kE2eWait))
        << watch->output();
    stack_.phone().detach(ServiceStack::kDevice);
    const auto watched = finish(*watch);
    EXPECT_EQ(watched.exitStatus, 0);

    const auto lines = jsonLines(watched.output);
    ASSERT_EQ(lines.size(), 3u) << watched.output;
    EXPECT_EQ(
        lines[2].dump(),
        R"({"message":0,"name":"bridgeStateChanged","payload":{"source":2,"connected":false}})");
}

TEST_F(SkiffctlE2eTest, LookupPrintsTheSummaryOrTheAppsAnswer) {
    const auto found = run({"--role", "fileprovider", "--json", "lookup", "Documents/notes.txt"});
    ASSERT_EQ(found.exitStatus, 0) << found.output;
    const auto summary = jsonLines(found.output);
    ASSERT_EQ(summary.size(), 1u) << found.output;
    EXPECT_EQ(summary[0].value("size", 0), 12);
    EXPECT_EQ(summary[0].value("filename", ""), "notes.txt");

    const auto missing = run({"--role", "fileprovider", "lookup", "Documents/none"});
    EXPECT_EQ(missing.exitStatus, 1);
    EXPECT_NE(missing.output.find("status 9 (deviceStatus), detail 1 (notFound)"),
              std::string::npos)
        << missing.output;

    // Without registering, the service refuses to relay.
    const auto refused = run({"--role", "none", "--json", "relay", "2"});
    EXPECT_EQ(refused.exitStatus, 1);
    EXPECT_NE(refused.output.find(R"("status":1)"), std::string::npos) << refused.output;

    // sdbus-c++ 1.2.0 leaks its half-made connection when the bus cannot be reached.
    const auto noBus = run({"--bus", "unix:path=" + stack_.storage() + "/no-bus", "version"},
                           {"ASAN_OPTIONS=detect_leaks=0"});
    EXPECT_EQ(noBus.exitStatus, 2) << noBus.output;
}

TEST_F(SkiffctlE2eTest, MeasurementsNeedAFileProviderAndSkiffctlCanBeOne) {
    for (const char* command : {"host-to-ext", "ext-to-host"}) {
        const auto measured = run({"--role", "fileprovider", "--json", command, "64K", "4"});
        ASSERT_EQ(measured.exitStatus, 0) << command << ": " << measured.output;
        const auto result = jsonLines(measured.output);
        ASSERT_EQ(result.size(), 1u) << measured.output;
        EXPECT_GE(result[0].value("seconds", -1.0), 0.0) << command;

        const auto alone = run({"--role", "none", command, "64K", "4"});
        EXPECT_EQ(alone.exitStatus, 1) << command << ": " << alone.output;
    }
    const auto ping = run({"--role", "fileprovider", "ext-to-host-ping", "0"});
    EXPECT_EQ(ping.exitStatus, 0) << ping.output;
    const auto ingest = run({"--role", "none", "--json", "ingest", "1M"});
    ASSERT_EQ(ingest.exitStatus, 0) << ingest.output;
    EXPECT_EQ(jsonLines(ingest.output).at(0).value("byteCount", 0), 1048576);
}

}  // namespace
}  // namespace skiff::test
