// Whole-file transfers as people run them: skiffctl pull and push through skiffd and the
// shared transfer folder to the simulated phone, the bytes compared at both ends.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "common/run_sync.hpp"
#include "e2e/skiffctl_fixture.hpp"
#include "support/file_text.hpp"

namespace skiff::test {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kChunk = 4'194'304;

// Bytes that differ at every offset of a chunk, so a chunk written at the wrong place shows.
std::string pattern(std::uint64_t size, std::uint8_t seed) {
    std::string bytes(size, '\0');
    for (std::uint64_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>((i * 131 + seed + i / 251) & 0xFF);
    }
    return bytes;
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
        // Progress ends at 100, and is not reported at all for an empty item.
        const auto steps = events(pulled, "progress");
        EXPECT_EQ(steps.empty() ? -1 : steps.back().value("percent", -1), size == 0 ? -1 : 100);

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

TEST_F(TransferE2eTest, AFetchWhoseTunnelDropsMidwayReconnectsAndCompletes) {
    const auto onPhone = pattern(3 * kChunk, 3);
    writeFile(fs::path(stack_.storage()) / "Documents/big.bin", onPhone);
    const auto pulledTo = (fs::path(local_.path()) / "big.bin").string();

    // The app closes the tunnel on the second chunk while the next one is already asked
    // for: what was still under way on the dropped connection must not spoil the new one.
    stack_.phone().command("fault drop-at-chunk 2");
    const auto cut = run({"--json", "pull", "Documents/big.bin", pulledTo});
    stack_.phone().command("fault clear");
    ASSERT_EQ(cut.exitStatus, 0) << cut.output << stack_.service().output() << "the phone said:\n"
                                 << stack_.phone().process().output();
    EXPECT_EQ(readFile(pulledTo), onPhone);
    EXPECT_TRUE(leftovers(stack_).empty()) << leftovers(stack_).front();
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
    ASSERT_EQ(events(cut, "error").size(), 1u) << cut.output;
    EXPECT_FALSE(fs::exists(pulledTo));
    EXPECT_TRUE(leftovers(stack_).empty()) << leftovers(stack_).front();

    const auto noPhone = run({"pull", "Documents/big.bin", pulledTo});
    EXPECT_EQ(noPhone.exitStatus, 1);
    EXPECT_NE(noPhone.output.find("no phone is attached"), std::string::npos) << noPhone.output;

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

}  // namespace
}  // namespace skiff::test
