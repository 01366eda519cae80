// Whole-file transfers as people run them: skiffctl pull and push through skiffd and the
// shared transfer folder to the simulated phone, the bytes compared at both ends.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "common/run_sync.hpp"
#include "e2e/skiffctl_fixture.hpp"

namespace skiff::test {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kChunk = 4'194'304;

// Bytes that differ at every offset of a chunk, so a chunk written at the wrong place shows.
Bytes pattern(std::uint64_t size, std::uint8_t seed) {
    Bytes bytes(size);
    for (std::uint64_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<std::uint8_t>((i * 131 + seed + i / 251) & 0xFF);
    }
    return bytes;
}

void writeFile(const fs::path& path, const Bytes& bytes) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

Bytes readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

// The transfer files left in the shared folder.
std::vector<std::string> leftovers(const ServiceStack& stack) {
    std::vector<std::string> names;
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(stack.container(), ignored)) {
        names.push_back(entry.path().filename().string());
    }
    return names;
}

class TransferE2eTest : public SkiffctlFixture {
protected:
    // The JSON events of a --json run, by kind.
    static std::vector<json::Json> events(const CtlRun& ran, const std::string& kind) {
        std::vector<json::Json> found;
        for (auto& line : jsonLines(ran.output)) {
            if (line.value("event", "") == kind) {
                found.push_back(std::move(line));
            }
        }
        return found;
    }

    TempDir local_{"skiff-transfer-local"};
    // Memory-backed, so never the transfer folder's file system.
    struct ShmDir {
        std::string dir = [] {
            std::string path = "/dev/shm/skiff-transfer-XXXXXX";
            return ::mkdtemp(path.data()) != nullptr ? path : std::string("/nonexistent");
        }();
        ~ShmDir() {
            std::error_code ignored;
            fs::remove_all(dir, ignored);
        }
        const std::string& path() const { return dir; }
    } otherFileSystem_;
};

TEST_F(TransferE2eTest, PulledAndPushedBytesMatchAtChunkBoundaries) {
    for (const std::uint64_t size : {std::uint64_t{0}, kChunk, kChunk + 1}) {
        SCOPED_TRACE(size);
        const auto name = "item-" + std::to_string(size);
        const auto onPhone = pattern(size, 1);
        writeFile(fs::path(stack_.storage()) / "Documents" / name, onPhone);

        // Into the transfer folder's file system (a second name) and into another (a copy).
        const auto pulledTo = fs::path(local_.path()) / name;
        const auto copiedTo = fs::path(otherFileSystem_.path()) / name;
        const auto copied = run({"pull", "Documents/" + name, copiedTo.string()});
        ASSERT_EQ(copied.exitStatus, 0) << copied.output;
        EXPECT_EQ(readFile(copiedTo), onPhone);
        const auto pulled = run({"--json", "pull", "Documents/" + name, pulledTo.string()});
        ASSERT_EQ(pulled.exitStatus, 0) << pulled.output;
        EXPECT_EQ(readFile(pulledTo), onPhone);
        const auto done = events(pulled, "done");
        ASSERT_EQ(done.size(), 1u) << pulled.output;
        EXPECT_EQ(done[0].value("bytes", std::uint64_t{99}), size);
        // Progress rises to 100 and is not reported at all for an empty item.
        std::vector<int> percents;
        for (const auto& step : events(pulled, "progress")) {
            percents.push_back(step.value("percent", -1));
        }
        EXPECT_TRUE(std::is_sorted(percents.begin(), percents.end())) << pulled.output;
        if (size == 0) {
            EXPECT_TRUE(percents.empty()) << pulled.output;
        } else {
            ASSERT_FALSE(percents.empty()) << pulled.output;
            EXPECT_EQ(percents.back(), 100);
        }

        const auto local = pattern(size, 2);
        writeFile(fs::path(local_.path()) / ("new-" + name), local);
        const auto pushed = run({"push", (fs::path(local_.path()) / ("new-" + name)).string(),
                                 "Documents/" + name, "--json"});
        ASSERT_EQ(pushed.exitStatus, 0) << pushed.output;
        EXPECT_EQ(readFile(fs::path(stack_.storage()) / "Documents" / name), local);
        // Both commands released what they left in the shared folder (which the service made).
        ASSERT_TRUE(fs::is_directory(stack_.container()));
        EXPECT_TRUE(leftovers(stack_).empty()) << leftovers(stack_).front();
    }
}

TEST_F(TransferE2eTest, AFetchCutShortLeavesNoFileAndTheNextOneWorks) {
    const auto onPhone = pattern(3 * kChunk, 3);
    writeFile(fs::path(stack_.storage()) / "Documents/big.bin", onPhone);
    const auto pulledTo = (fs::path(local_.path()) / "big.bin").string();

    struct Case {
        std::string fault;
        bool completes;  // a tunnel dropped once is reconnected and the chunk asked again
    };
    for (const auto& c : {Case{"fault fail-chunk 2", false}, Case{"fault drop-at-chunk 2", true}}) {
        SCOPED_TRACE(c.fault);
        stack_.phone().command(c.fault);
        const auto cut = run({"--json", "pull", "Documents/big.bin", pulledTo});
        stack_.phone().command("fault clear");
        if (c.completes) {
            EXPECT_EQ(cut.exitStatus, 0) << cut.output;
            EXPECT_EQ(readFile(pulledTo), onPhone);
        } else {
            EXPECT_EQ(cut.exitStatus, 1) << cut.output;
            const auto failed = events(cut, "error");
            ASSERT_EQ(failed.size(), 1u) << cut.output;
            EXPECT_GT(failed[0].value("status", 0), 0);
            EXPECT_FALSE(fs::exists(pulledTo));
        }
        EXPECT_TRUE(leftovers(stack_).empty()) << leftovers(stack_).front();
        fs::remove(pulledTo);

        const auto again = run({"pull", "Documents/big.bin", pulledTo});
        ASSERT_EQ(again.exitStatus, 0) << again.output;
        EXPECT_EQ(readFile(pulledTo), onPhone);
        fs::remove(pulledTo);
    }
}

TEST_F(TransferE2eTest, APhoneUnpluggedMidFetchFailsItAndTheNextFetchWorks) {
    const auto onPhone = pattern(4 * kChunk, 4);
    writeFile(fs::path(stack_.storage()) / "Documents/big.bin", onPhone);
    const auto pulledTo = (fs::path(local_.path()) / "big.bin").string();

    // Slow chunks leave time to pull the plug once the first has arrived.
    stack_.phone().command("fault delay 300");
    auto pull = start({"--json", "pull", "Documents/big.bin", pulledTo});
    ASSERT_TRUE(pull->waitForOutput("\"progress\"", kE2eWait)) << pull->output();
    stack_.phone().detach(ServiceStack::kDevice);
    const auto cut = finish(*pull);
    EXPECT_EQ(cut.exitStatus, 1) << cut.output;
    EXPECT_FALSE(fs::exists(pulledTo));
    EXPECT_TRUE(leftovers(stack_).empty()) << leftovers(stack_).front();

    const auto noPhone = run({"pull", "Documents/big.bin", pulledTo});
    EXPECT_EQ(noPhone.exitStatus, 1);
    EXPECT_NE(noPhone.output.find("no phone attached"), std::string::npos) << noPhone.output;

    stack_.phone().command("fault clear");
    stack_.phone().attach(ServiceStack::kDevice);
    ASSERT_TRUE(skiff::testing::eventually([&] {
        const auto lines = jsonLines(run({"devices", "--json"}).output);
        return !lines.empty() && lines[0].value("devices", json::Json::array()).size() == 1;
    }));
    const auto again = run({"pull", "Documents/big.bin", pulledTo});
    ASSERT_EQ(again.exitStatus, 0) << again.output;
    EXPECT_EQ(readFile(pulledTo), onPhone);
}

TEST_F(TransferE2eTest, EveryFailureKindHasItsExitStatus) {
    const auto missing = (fs::path(local_.path()) / "missing").string();
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
        {{"push", missing, "Documents/x"}, 3, "cannot read"},
        {{"relay", "2", "--body", missing}, 3, "cannot read"},
        {{"pull", "Documents/notes.txt", missing + "/in/no/folder"}, 3, "cannot write"},
        {{"pull", "Documents/absent.txt", local_.path()}, 1, "not found on the phone"},
    };
    for (const auto& c : cases) {
        const auto ran = run(c.args);
        EXPECT_EQ(ran.exitStatus, c.status) << c.args.front() << ": " << ran.output;
        EXPECT_NE(ran.output.find(c.says), std::string::npos) << ran.output;
    }
}

}  // namespace
}  // namespace skiff::test
