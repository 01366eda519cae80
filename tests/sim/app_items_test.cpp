#include "sim/app_items.hpp"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "common/byte_text.hpp"
#include "relay/item_requests.hpp"
#include "sim/app_storage_fixture.hpp"
#include "sim/app_transfer.hpp"
#include "transfer/file_io_records.hpp"

namespace skiff::sim {
namespace {

namespace fs = std::filesystem;
using relay::RelayItemSummary;
using relay::RelayListReply;
using skiff::test::readFile;
using skiff::test::writeFile;
using skiff::testing::bytesOf;
using AppLookupTest = AppStorageTest;

using Request = tunnel::TunnelMessage (*)(const fs::path&, const Bytes&);

class AppItemsTest : public AppStorageTest {
protected:
    RelayItemSummary summaryFrom(const tunnel::TunnelMessage& answer) {
        EXPECT_EQ(answer.code, 0);
        return json::decode<RelayItemSummary>(answer.payload).value_or(RelayItemSummary{});
    }

    RelayListReply list(const std::string& id, std::optional<std::string> cursor = std::nullopt) {
        const auto answer =
            listDirectory(root_, *json::encode(relay::RelayListRequest{id, std::move(cursor)}));
        EXPECT_EQ(answer.code, 0) << id;
        return json::decode<RelayListReply>(answer.payload).value_or(RelayListReply{});
    }
};

TEST_F(AppLookupTest, FileSummaryAndItsVersionsFollowTheFileSystem) {
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

    // Its versions hold until the content changes.
    EXPECT_EQ(summary("docs/a.txt").contentVersion, s.contentVersion);
    writeFile(root_ / "docs/a.txt", "hello, longer");
    const auto after = summary("docs/a.txt");
    EXPECT_NE(after.contentVersion, s.contentVersion);
    EXPECT_NE(after.metadataVersion, s.metadataVersion);
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

TEST_F(AppLookupTest, BadBodiesAnswerWithAnEmptyFailure) {
    for (const std::string body : {"", "not json", "{}", R"({"identifier":"docs"})",
                                   R"({"identifier":"docs","source":"fsGetattributes"})"}) {
        const auto answer = lookUpItem(root_, Bytes(body.begin(), body.end()));
        EXPECT_EQ(answer.code, 4) << body;
        EXPECT_TRUE(answer.payload.empty()) << body;
    }
}

TEST_F(AppLookupTest, MissingItemsAndAnythingOutsideTheStorageAreNotFound) {
    const std::vector<std::string> escapes = {"nothing",
                                              "docs/none.txt",
                                              "docs/a.txt/x",
                                              "../outside/secret.txt",
                                              "docs/../../outside/secret.txt",
                                              "docs/..",
                                              "out/secret.txt",
                                              "docs-link/a.txt",
                                              outside_.string() + "/secret.txt"};
    for (const auto& escape : escapes) {
        const auto answer = lookUp(escape);
        EXPECT_EQ(answer.code, 1) << escape;
        EXPECT_TRUE(answer.payload.empty()) << escape;
    }
    // A link itself is an item of the storage: its own summary, never its target's.
    const auto link = summary("secret-link");
    EXPECT_TRUE(S_ISLNK(link.mode));
    EXPECT_NE(link.size, 7u);
}

Bytes item(const std::string& id) {
    return *json::encode(relay::RelayItemRequest{id});
}
Bytes rename(const std::string& from, const std::string& to) {
    return *json::encode(relay::RelayRenameRequest{from, to});
}

TEST_F(AppItemsTest, RefusalsAnswerTheirStatusAndLeaveTheStorageAlone) {
    struct Case {
        Request request;
        Bytes body;
        std::uint16_t status;
    };
    const std::vector<Case> cases = {
        // Spelling (each request checks it; the spellings themselves are the relay's table):
        // one name per item, nothing outside the storage.
        {listDirectory, item("docs//sub"), 4},
        {removeItem, item("docs/../file.txt"), 4},
        {makeDirectory, item(".."), 4},
        {renameItem, rename("file.txt", "../stolen.txt"), 4},
        {renameItem, rename("../outside/secret.txt", "got.txt"), 4},
        {listDirectory, item("out"), 7},
        {removeItem, item("out/secret.txt"), 1},
        {makeDirectory, item("out/made"), 1},
        {renameItem, rename("out/secret.txt", "got.txt"), 1},
        {renameItem, rename("file.txt", "out/file.txt"), 1},
        // Bodies that do not decode, and a cursor the app never gave.
        {listDirectory, bytesOf("{}"), 4},
        {removeItem, bytesOf("not json"), 4},
        {makeDirectory, bytesOf(R"({"identifier":1})"), 4},
        {renameItem, bytesOf(R"({"identifier":"file.txt"})"), 4},
        {listDirectory, bytesOf(R"({"identifier":"docs","cursor":"%%"})"), 4},
        // Missing items and folders on the way.
        {listDirectory, item("nothing"), 1},
        {removeItem, item("docs/none.txt"), 1},
        {removeItem, item("file.txt/x"), 1},
        {makeDirectory, item("none/new"), 1},
        {renameItem, rename("nothing", "something"), 1},
        {renameItem, rename("file.txt", "none/file.txt"), 1},
        // Items in the way, wrong kinds, the root.
        {listDirectory, item("file.txt"), 7},
        {listDirectory, item("docs-link"), 7},
        {removeItem, item("docs"), 3},
        {removeItem, item(""), 4},
        {makeDirectory, item("docs"), 3},
        {makeDirectory, item("file.txt"), 3},
        {makeDirectory, item("docs-link"), 3},
        {makeDirectory, item(""), 3},
        {renameItem, rename("file.txt", "empty"), 8},
        {renameItem, rename("empty", "file.txt"), 7},
        {renameItem, rename("empty", "docs"), 3},
        {renameItem, rename("docs", "docs/sub/docs"), 4},
        {renameItem, rename("", "root"), 4},
        {renameItem, rename("file.txt", ""), 4},
    };
    const auto before = tree();
    for (const auto& [request, body, status] : cases) {
        const auto answer = request(root_, body);
        EXPECT_EQ(answer.code, status) << std::string(body.begin(), body.end());
        EXPECT_TRUE(answer.payload.empty()) << std::string(body.begin(), body.end());
    }
    EXPECT_EQ(tree(), before);
    EXPECT_EQ(readFile(outside_ / "secret.txt"), "outside");
}

TEST_F(AppItemsTest, ChangesAnswerTheItemUnderItsNewName) {
    const auto made = summaryFrom(makeDirectory(root_, item("docs/new")));
    EXPECT_EQ(made.identifier, "docs/new");
    EXPECT_EQ(made.filename, "new");
    EXPECT_TRUE(made.isDirectory);
    EXPECT_TRUE(fs::is_directory(root_ / "docs/new"));

    // A file replaces a file; a directory replaces an empty one and takes its content along.
    const auto moved = summaryFrom(renameItem(root_, rename("docs/a.txt", "file.txt")));
    EXPECT_EQ(moved.identifier, "file.txt");
    EXPECT_EQ(moved.size, 5u);
    EXPECT_EQ(readFile(root_ / "file.txt"), "hello");
    EXPECT_FALSE(fs::exists(root_ / "docs/a.txt"));
    EXPECT_TRUE(summaryFrom(renameItem(root_, rename("docs/sub", "empty"))).isDirectory);
    EXPECT_EQ(readFile(root_ / "empty/x"), "x");

    // Removing a link removes the link, never what it points at.
    for (const char* id : {"docs-link", "out", "empty/x", "empty", "docs/new"}) {
        const auto answer = removeItem(root_, item(id));
        EXPECT_EQ(answer.code, 0) << id;
        EXPECT_TRUE(answer.payload.empty()) << id;
        EXPECT_FALSE(fs::exists(fs::symlink_status(root_ / id))) << id;
    }
    EXPECT_EQ(readFile(outside_ / "secret.txt"), "outside");
    EXPECT_TRUE(fs::is_directory(root_ / "docs"));
}

TEST_F(AppItemsTest, LargeDirectoryComesInOrderedPagesThatSurviveChangesBetweenThem) {
    fs::create_directory(root_ / "many");
    std::vector<std::string> names;
    for (int i = 0; i < 2500; ++i) {
        names.push_back("f" + std::to_string(i));
        writeFile(root_ / "many" / names.back(), "");
    }
    std::sort(names.begin(), names.end());

    std::vector<std::string> seen;
    std::vector<std::size_t> pageSizes;
    std::optional<std::string> cursor;
    do {
        const auto page = list("many", cursor);
        pageSizes.push_back(page.items.size());
        for (const auto& summary : page.items) {
            EXPECT_EQ(summary.identifier, "many/" + summary.filename);
            seen.push_back(summary.filename);
        }
        if (pageSizes.size() == 1) {
            // Between pages: an item already handed out goes, one before the cursor comes.
            fs::remove(root_ / "many" / names[3]);
            writeFile(root_ / "many/a-late", "");
        }
        cursor = page.nextCursor;
    } while (cursor && pageSizes.size() < 5);
    EXPECT_EQ(pageSizes, (std::vector<std::size_t>{1000, 1000, 500}));
    EXPECT_EQ(seen, names);

    // The root lists as "", its items without a leading "/".
    std::set<std::string> top;
    for (const auto& summary : list("").items) {
        top.insert(summary.identifier);
    }
    EXPECT_EQ(top, (std::set<std::string>{"docs", "docs-link", "empty", "file.txt", "many", "out",
                                          "secret-link"}));
    EXPECT_TRUE(list("empty").items.empty());
    EXPECT_FALSE(list("empty").nextCursor);
}

TEST_F(AppItemsTest, StagedWriteIsRefusedOnceItsItemWasMovedOrRemoved) {
    struct Case {
        const char* what;
        const char* staged;
        Request request;
        Bytes body;
        std::uint16_t commitStatus;
    };
    const std::vector<Case> cases = {
        {"renamed away", "docs/a.txt", renameItem, rename("docs/a.txt", "moved.txt"), 6},
        {"replaced by a rename", "file.txt", renameItem, rename("docs/a.txt", "file.txt"), 6},
        {"removed", "docs/a.txt", removeItem, item("docs/a.txt"), 6},
        {"its folder renamed", "docs/sub/x", renameItem, rename("docs/sub", "sub2"), 1},
        {"made where a new file was staged", "docs/new", makeDirectory, item("docs/new"), 6},
    };
    for (const auto& [what, staged, request, body, commitStatus] : cases) {
        populate();
        AppTransfer transfer(root_);
        const auto stage =
            *json::encode(transfer::RelayTruncateWriteRequest{staged, 3, contentVersion(staged)});
        ASSERT_EQ(transfer.stageWrite(stage).code, 0) << what;
        ASSERT_EQ(request(root_, body).code, 0) << what;
        const auto before = tree();
        EXPECT_EQ(
            transfer.commitWrite(*json::encode(transfer::RelayCommitWriteRequest{staged})).code,
            commitStatus)
            << what;
        EXPECT_EQ(tree(), before) << what;
    }

    // Moving a file is no change of its content: a write staged against the version seen
    // before the move goes through under the new name.
    populate();
    const auto version = contentVersion("docs/a.txt");
    ASSERT_EQ(renameItem(root_, rename("docs/a.txt", "moved.txt")).code, 0);
    EXPECT_EQ(contentVersion("moved.txt"), version);
    AppTransfer transfer(root_);
    ASSERT_EQ(
        transfer
            .stageWrite(*json::encode(transfer::RelayTruncateWriteRequest{"moved.txt", 2, version}))
            .code,
        0);
    EXPECT_EQ(
        transfer.commitWrite(*json::encode(transfer::RelayCommitWriteRequest{"moved.txt"})).code,
        0);
    EXPECT_EQ(readFile(root_ / "moved.txt"), std::string(2, '\0'));
}

}  // namespace
}  // namespace skiff::sim
