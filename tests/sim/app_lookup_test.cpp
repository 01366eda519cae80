#include "sim/app_lookup.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "relay/relay_schema.hpp"
#include "support/child_process.hpp"
#include "support/file_text.hpp"

namespace skiff::sim {
namespace {

namespace fs = std::filesystem;
using relay::RelayItemSummary;
using skiff::test::writeFile;

class AppLookupTest : public ::testing::Test {
protected:
    AppLookupTest() : root_(base_.path() + "/storage") {
        fs::create_directories(root_ / "docs");
        writeFile(root_ / "docs/a.txt", "hello");
        writeFile(fs::path(base_.path()) / "secret.txt", "outside");
    }

    tunnel::TunnelMessage ask(const std::string& identifier,
                              const char* source = "fsGetAttributes") {
        const std::string body =
            R"({"identifier":)" + json::Json(identifier).dump() + R"(,"source":")" + source + "\"}";
        return lookUpItem(root_, Bytes(body.begin(), body.end()));
    }

    RelayItemSummary summary(const std::string& identifier) {
        const auto answer = ask(identifier);
        EXPECT_EQ(answer.code, 0) << identifier;
        auto decoded = json::decode<RelayItemSummary>(answer.payload);
        EXPECT_TRUE(decoded.has_value()) << identifier;
        return decoded.value_or(RelayItemSummary{});
    }

    test::TempDir base_;
    fs::path root_;
};

TEST_F(AppLookupTest, FileSummaryFollowsTheFileSystem) {
    const auto s = summary("docs/a.txt");
    struct stat st {};
    ASSERT_EQ(::lstat((root_ / "docs/a.txt").c_str(), &st), 0);
    EXPECT_EQ(s.identifier, "docs/a.txt");
    EXPECT_EQ(s.filename, "a.txt");
    EXPECT_FALSE(s.isDirectory);
    EXPECT_EQ(s.size, 5u);
    EXPECT_EQ(s.inode, st.st_ino);
    EXPECT_EQ(s.mode, st.st_mode);
    EXPECT_EQ(s.allocSize, static_cast<std::uint64_t>(st.st_blocks) * 512);
    EXPECT_EQ(s.uid, st.st_uid);
    EXPECT_EQ(s.linkCount, st.st_nlink);
    EXPECT_EQ(s.modifyTime.tvSec, st.st_mtim.tv_sec);
    EXPECT_EQ(s.modifyTime.tvNsec, st.st_mtim.tv_nsec);
    ASSERT_TRUE(s.contentVersion && s.metadataVersion);
    EXPECT_FALSE(s.contentVersion->empty());
}

TEST_F(AppLookupTest, RootAndDirectoriesWhateverTheSpelling) {
    for (const char* root : {"", "/", ".", "//./"}) {
        const auto s = summary(root);
        EXPECT_TRUE(s.isDirectory) << root;
        EXPECT_EQ(s.filename, "") << root;
    }
    const auto docs = summary("/docs/");
    EXPECT_TRUE(docs.isDirectory);
    EXPECT_EQ(docs.filename, "docs");
    EXPECT_EQ(summary("./docs//a.txt").inode, summary("docs/a.txt").inode);
}

TEST_F(AppLookupTest, ContentVersionMovesWithTheContent) {
    const auto before = summary("docs/a.txt");
    EXPECT_EQ(summary("docs/a.txt").contentVersion, before.contentVersion);
    writeFile(root_ / "docs/a.txt", "hello, longer");
    const auto after = summary("docs/a.txt");
    EXPECT_NE(after.contentVersion, before.contentVersion);
    EXPECT_NE(after.metadataVersion, before.metadataVersion);
}

TEST_F(AppLookupTest, BadBodiesAnswerWithAnEmptyFailure) {
    for (const std::string body : {"", "not json", "{}", R"({"identifier":"docs"})",
                                   R"({"identifier":"docs","source":"fsGetattributes"})"}) {
        const auto answer = lookUpItem(root_, Bytes(body.begin(), body.end()));
        EXPECT_EQ(answer.code, 4) << body;
        EXPECT_TRUE(answer.payload.empty()) << body;
    }
}

TEST_F(AppLookupTest, MissingItemsAndAnythingOutsideTheStorageAreNotFound) {
    const fs::path outside = fs::path(base_.path());
    fs::create_directory_symlink(outside, root_ / "out");
    fs::create_symlink(outside / "secret.txt", root_ / "secret-link");
    fs::create_directory_symlink(root_ / "docs", root_ / "docs-link");

    const std::vector<std::string> escapes = {"nothing",
                                              "docs/none.txt",
                                              "docs/a.txt/x",
                                              "../secret.txt",
                                              "docs/../../secret.txt",
                                              "docs/..",
                                              "out/secret.txt",
                                              "out/storage/docs/a.txt",
                                              "docs-link/a.txt",
                                              outside.string() + "/secret.txt"};
    for (const auto& escape : escapes) {
        const auto answer = ask(escape);
        EXPECT_EQ(answer.code, 1) << escape;
        EXPECT_TRUE(answer.payload.empty()) << escape;
    }
    // A link itself is an item of the storage: its own summary, never its target's.
    const auto link = summary("secret-link");
    EXPECT_TRUE(S_ISLNK(link.mode));
    EXPECT_NE(link.size, 7u);
}

}  // namespace
}  // namespace skiff::sim
