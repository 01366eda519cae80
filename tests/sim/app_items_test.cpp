#include "sim/app_items.hpp"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "common/byte_text.hpp"
#include "relay/item_requests.hpp"
#include "relay/volume_records.hpp"
#include "sim/app_storage_fixture.hpp"
#include "sim/app_transfer.hpp"
#include "sim/app_volume.hpp"
#include "transfer/file_io_records.hpp"

namespace skiff::sim {
namespace {

namespace fs = std::filesystem;
using relay::RelayItemSummary;
using relay::RelayListReply;
using skiff::test::readFile;
using skiff::test::writeFile;
using skiff::testing::bytesOf;

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

Bytes modeBody(const std::string& id, std::uint32_t mode) {
    return *json::encode(relay::RelaySetAttributesRequest{id, std::nullopt, std::nullopt, mode});
}
Bytes lookupBody(const std::string& id) {
    return *json::encode(relay::RelayLookupRequest{id, relay::RelayLookupSource::fsGetAttributes});
}
Bytes rangeBody(const std::string& id, std::uint64_t offset, std::uint32_t length,
                const Bytes& version) {
    return *relay::encodeRangeReadRequest({id, offset, length, version});
}

// Times and mode set by code 8 reach the file, and every summary of it says what it has.
TEST_F(AppItemsTest, SetAttributesReachTheFileAndComeBackInEverySummary) {
    using relay::RelayTimespec;
    const relay::RelaySetAttributesRequest cases[] = {
        {"docs/a.txt", RelayTimespec{1'000'000'000, 5}, RelayTimespec{-1, 999'999'999}, 0600},
        {"docs/a.txt", std::nullopt, std::nullopt, 04751},  // the times stay
        {"", RelayTimespec{42, 0}, std::nullopt, 0700},     // the root itself
    };
    for (const auto& request : cases) {
        const auto before = summary(request.identifier);
        const auto answered = summaryFrom(setAttributes(root_, *json::encode(request)));
        EXPECT_EQ(answered.modifyTime, request.modifyTime.value_or(before.modifyTime));
        EXPECT_EQ(answered.accessTime, request.accessTime.value_or(before.accessTime));
        struct stat st {};
        ASSERT_EQ(::lstat((root_ / request.identifier).c_str(), &st), 0);
        EXPECT_EQ(answered.mode,
                  (S_IFMT & st.st_mode) | request.mode.value_or(before.mode & 07777));
        EXPECT_EQ(answered.modifyTime.tvSec, st.st_mtim.tv_sec);
        EXPECT_EQ(summary(request.identifier), answered);
    }
    EXPECT_EQ(std::ranges::count(list("docs").items, summary("docs/a.txt")), 1);
}

TEST_F(AppItemsTest, RangeReadsAnswerOnlyTheVersionAskedFor) {
    writeFile(root_ / "docs/a.txt", "0123456789");
    const auto version = contentVersion("docs/a.txt");
    const std::pair<Bytes, std::string> reads[] = {
        {rangeBody("docs/a.txt", 2, 3, version), "234"},
        {rangeBody("docs/a.txt", 8, 100, version), "89"},  // fewer only at the end
        {rangeBody("docs/a.txt", 10, 1, version), ""},
        {rangeBody("docs/a.txt", ~0ULL, relay::kMaxRangeReadBytes, version), ""},
    };
    for (const auto& [body, bytes] : reads) {
        const auto answer = readVersionRange(root_, body);
        EXPECT_EQ(answer.code, 0) << bytes;
        EXPECT_EQ(std::string(answer.payload.begin(), answer.payload.end()), bytes);
    }
    // Replaced with the same size: the version read before is gone.
    writeFile(root_ / "docs/a.txt", "abcdefghij");
    EXPECT_EQ(readVersionRange(root_, rangeBody("docs/a.txt", 0, 3, version)).code, 6);

    const auto space =
        json::decode<relay::RelaySpaceReply>(storageSpace(root_, bytesOf("{}")).payload);
    ASSERT_TRUE(space);
    EXPECT_GE(space->totalBytes, space->freeBytes);
    EXPECT_GT(space->freeBytes, 0u);
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
        {makeDirectory, item(".."), 4},
        {renameItem, rename("file.txt", "../stolen.txt"), 4},
        {listDirectory, item("out"), 7},
        {removeItem, item("out/secret.txt"), 1},
        {renameItem, rename("file.txt", "out/file.txt"), 1},
        // Bodies that do not decode, and a cursor the app never gave.
        {listDirectory, bytesOf("{}"), 4},
        {renameItem, bytesOf(R"({"identifier":"file.txt"})"), 4},
        {listDirectory, bytesOf(R"({"identifier":"docs","cursor":"%%"})"), 4},
        // Missing items and folders on the way.
        {removeItem, item("docs/none.txt"), 1},
        {makeDirectory, item("none/new"), 1},
        // Items in the way, wrong kinds, the root.
        {listDirectory, item("file.txt"), 7},
        {removeItem, item("docs"), 3},
        {removeItem, item(""), 4},
        {renameItem, rename("file.txt", "empty"), 8},
        {renameItem, rename("empty", "file.txt"), 7},
        {renameItem, rename("empty", "docs"), 3},
        {renameItem, rename("docs", "docs/sub/docs"), 4},
        {renameItem, rename("", "root"), 4},
        // The volume's requests.
        {setAttributes, modeBody("file.txt", 010000), 4},
        {setAttributes,
         bytesOf(R"({"identifier":"file.txt","modifyTime":{"tvSec":0,"tvNsec":1000000000}})"),
         4},  // not "now"
        {setAttributes, modeBody("secret-link", 0777), 4},
        {setAttributes, modeBody("out/secret.txt", 0777), 1},
        {setAttributes, bytesOf(R"({"identifier":"file.txt","mode":-1})"), 4},
        {readVersionRange, rangeBody("docs", 0, 1, {}), 8},
        {readVersionRange, rangeBody("secret-link", 0, 1, {}), 4},
        {readVersionRange, rangeBody("docs//a.txt", 0, 1, {}), 4},
        {readVersionRange, rangeBody("file.txt", 0, 1, {}), 6},
        {storageSpace, bytesOf(""), 4},
        // Look-ups: outside the storage or through a link is not found; a bad source is a bad body.
        {lookUpItem, lookupBody("../outside/secret.txt"), 1},
        {lookUpItem, lookupBody("docs-link/a.txt"), 1},
        {lookUpItem, lookupBody(outside_.string() + "/secret.txt"), 1},
        {lookUpItem, bytesOf(R"({"identifier":"docs","source":"fsGetattributes"})"), 4},
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

TEST_F(AppItemsTest, ChangesAnswerTheItemUnderItsNewNameAndNeverFollowALink) {
    EXPECT_EQ(summaryFrom(renameItem(root_, rename("docs/sub", "empty"))).identifier, "empty");
    EXPECT_EQ(readFile(root_ / "empty/x"), "x");
    for (const char* id : {"docs-link", "out", "empty/x", "empty"}) {
        EXPECT_EQ(removeItem(root_, item(id)).code, 0) << id;
        EXPECT_FALSE(fs::exists(fs::symlink_status(root_ / id))) << id;
    }
    EXPECT_EQ(readFile(outside_ / "secret.txt"), "outside");
    EXPECT_TRUE(fs::is_directory(root_ / "docs"));
    EXPECT_TRUE(S_ISLNK(summary("secret-link").mode));  // a link's own summary
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
}

}  // namespace
}  // namespace skiff::sim
