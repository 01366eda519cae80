// The volume's units below the file system: byte ranges, the record of writes the phone does
// not have yet, conflict names, and the checks a listing from the phone must pass.

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

#include "relay/item_requests.hpp"
#include "support/child_process.hpp"
#include "volume/conflict_name.hpp"
#include "volume/folder_cache.hpp"
#include "volume/node_table.hpp"
#include "volume/pending_store.hpp"
#include "volume/phone_relay.hpp"
#include "volume/range_set.hpp"

namespace skiff::volume {
namespace {

namespace fs = std::filesystem;
using Ranges = std::vector<ByteRange>;

TEST(RangeSet, AddsMergeRemovesSplitAndTruncateCuts) {
    constexpr auto kMax = std::numeric_limits<std::uint64_t>::max();
    struct Op {
        char kind;  // a: add, r: remove, t: truncate (to first)
        std::uint64_t first;
        std::uint64_t second = 0;
    };
    struct Case {
        const char* name;
        std::vector<Op> ops;
        Ranges expected;
    };
    const Case cases[] = {
        {"gap filled", {{'a', 0, 10}, {'a', 20, 10}, {'a', 10, 10}}, {{0, 30}}},
        {"touching ranges merge", {{'a', 5, 5}, {'a', 0, 5}}, {{0, 10}}},
        {"one swallows many", {{'a', 10, 5}, {'a', 30, 5}, {'a', 0, 100}}, {{0, 100}}},
        {"overlap extends", {{'a', 0, 10}, {'a', 5, 10}, {'a', 40, 1}}, {{0, 15}, {40, 1}}},
        {"empty add", {{'a', 5, 0}}, {}},
        {"end of the offsets", {{'a', kMax - 5, 100}}, {{kMax - 5, 5}}},
        {"remove splits", {{'a', 0, 30}, {'r', 10, 10}}, {{0, 10}, {20, 10}}},
        {"remove spans",
         {{'a', 0, 10}, {'a', 20, 10}, {'a', 40, 10}, {'r', 5, 40}},
         {{0, 5}, {45, 5}}},
        {"remove outside", {{'a', 10, 10}, {'r', 0, 10}, {'r', 20, 5}}, {{10, 10}}},
        {"truncate inside", {{'a', 0, 10}, {'a', 20, 10}, {'t', 25}}, {{0, 10}, {20, 5}}},
        {"truncate at an end", {{'a', 0, 10}, {'a', 20, 10}, {'t', 10}}, {{0, 10}}},
        {"truncate to zero", {{'a', 3, 10}, {'t', 0}}, {}},
    };
    for (const auto& c : cases) {
        RangeSet set;
        for (const auto& op : c.ops) {
            if (op.kind == 'a') {
                set.add(op.first, op.second);
            } else if (op.kind == 'r') {
                set.remove(op.first, op.second);
            } else {
                set.truncate(op.first);
            }
        }
        EXPECT_EQ(set.ranges(), c.expected) << c.name;
        std::uint64_t bytes = 0;
        for (const auto& r : c.expected) {
            bytes += r.length;
        }
        EXPECT_EQ(set.bytes(), bytes) << c.name;
    }
}

TEST(RangeSet, GapsAreWhatIsNotHeldWithinTheAskedRange) {
    RangeSet set;
    set.add(10, 10);
    set.add(30, 10);
    struct Case {
        std::uint64_t offset;
        std::uint64_t length;
        Ranges gaps;
    };
    const Case cases[] = {
        {0, 50, {{0, 10}, {20, 10}, {40, 10}}},
        {12, 5, {}},
        {15, 20, {{20, 10}}},
        {45, 5, {{45, 5}}},
        {20, 0, {}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(set.gaps(c.offset, c.length), c.gaps) << c.offset << "+" << c.length;
        EXPECT_EQ(set.covers(c.offset, c.length), c.gaps.empty()) << c.offset;
    }
}

class PendingStoreTest : public ::testing::Test {
protected:
    void writeFile(const std::string& name, const std::string& text) {
        std::ofstream(folder_ / name, std::ios::binary) << text;
    }
    bool exists(const std::string& name) const { return fs::exists(folder_ / name); }

    test::TempDir dir_{"skiff-pending"};
    fs::path folder_{dir_.path()};
};

TEST_F(PendingStoreTest, RecordsComeBackAsSavedAndReplaceTheirOldSelves) {
    PendingStore store(folder_);
    const PendingWrite edited{"docs/a.txt",           Bytes{1, 2, 3}, 5000,
                              {{0, 10}, {4096, 904}}, "n1",           0640};
    const PendingWrite created{"b", std::nullopt, 0, {}, "n2", std::nullopt};
    ASSERT_TRUE(store.save(edited, true));
    ASSERT_TRUE(store.save(PendingWrite{"b", Bytes{9}, 1, {{0, 1}}, "n2", 0600}, true));
    ASSERT_TRUE(store.save(created, true));
    EXPECT_FALSE(
        store.save(PendingWrite{"c", std::nullopt, 0, {}, "../escape", std::nullopt}, true));

    auto loaded = store.loadAll();
    std::sort(loaded.begin(), loaded.end(),
              [](const auto& a, const auto& b) { return a.copyName < b.copyName; });
    EXPECT_EQ(loaded, (std::vector<PendingWrite>{edited, created}));
    EXPECT_EQ(store.count(), 2u);
    store.remove("n1");
    EXPECT_EQ(PendingStore::countIn(folder_), 1u);
    EXPECT_EQ(PendingStore::countIn(folder_ / "missing"), 0u);
}

TEST_F(PendingStoreTest, CrashLeftoversGoAndNothingRecordedIsLost) {
    PendingStore store(folder_);
    ASSERT_TRUE(
        store.save(PendingWrite{"a", std::nullopt, 3, {{0, 3}}, "kept", std::nullopt}, true));
    for (const auto* copy : {"kept", "torn", "liar", "open", "orphan"}) {
        writeFile(copy, "bytes");
    }
    writeFile("torn.pending", R"({"identifier":"t","size":)");
    // A record must name its own copy; this one points at another file.
    writeFile("liar.pending", R"({"identifier":"l","size":0,"dirty":[],"copyName":"orphan"})");
    writeFile("half.pending.tmp", "{");

    const auto loaded = store.loadAll();
    ASSERT_EQ(loaded.size(), 1u);
    EXPECT_EQ(loaded[0].copyName, "kept");
    EXPECT_TRUE(exists("torn.pending.bad"));
    EXPECT_TRUE(exists("liar.pending.bad"));

    store.removeOrphans({"open"});
    for (const auto* name : {"kept", "kept.pending", "torn", "liar", "open"}) {
        EXPECT_TRUE(exists(name)) << name;
    }
    EXPECT_FALSE(exists("orphan"));
    EXPECT_FALSE(exists("half.pending.tmp"));
    EXPECT_EQ(store.count(), 1u);
}

// A listing answers for its folder only while fresh, follows the volume's own changes, and
// forgets what lay below an item that went.
TEST(FolderCache, AListingAnswersForItsFolderAndFollowsTheVolumesOwnChanges) {
    using Known = FolderCache::Known;
    const auto item = [](std::string identifier, bool isDirectory = false) {
        relay::RelayItemSummary summary;
        summary.filename = nameOf(identifier);
        summary.identifier = std::move(identifier);
        summary.isDirectory = isDirectory;
        return summary;
    };
    FolderCache cache(std::chrono::hours(1));
    const auto now = FolderCache::Clock::now();
    cache.store("", now, {item("a", true), item("f")});
    cache.store("a", now, {item("a/x")});
    cache.put(item("a/new"));
    cache.put(item("unlisted/y"));  // a folder with no listing learns nothing
    cache.erase("f");
    const std::pair<const char*, Known> expected[] = {
        {"a", Known::present},          {"f", Known::absent},      {"g", Known::absent},
        {"a/x", Known::present},        {"a/new", Known::present}, {"a/z", Known::absent},
        {"unlisted/y", Known::unknown},
    };
    for (const auto& [identifier, known] : expected) {
        EXPECT_EQ(cache.find(identifier).known, known) << identifier;
    }
    cache.erase("a");  // its own listing goes with it
    EXPECT_EQ(cache.find("a/x").known, Known::unknown);

    FolderCache stale(std::chrono::seconds(1));
    stale.store("", now - std::chrono::seconds(2), {item("f")});
    EXPECT_EQ(stale.find("f").known, Known::unknown);
    const std::vector many(FolderCache::kEntryLimit + 1, item("big/e"));
    stale.store("big", now, many);
    EXPECT_FALSE(stale.worthListing("big"));
    EXPECT_EQ(stale.find("big/e").known, Known::unknown);
}

TEST(ConflictName, TheStampGoesBeforeTheExtensionAndTheNameStaysAFileName) {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    const auto when = std::chrono::system_clock::from_time_t(1709647629);
    const std::string stamp = " (conflict 2024-03-05 140709)";
    struct Case {
        std::string name;
        std::string expected;
    };
    const Case cases[] = {
        {"report.pdf", "report" + stamp + ".pdf"},
        {"archive.tar.gz", "archive.tar" + stamp + ".gz"},
        {"Makefile", "Makefile" + stamp},
        {".bashrc", ".bashrc" + stamp},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(conflictName(c.name, when), c.expected);
    }
    // Two-byte characters: a cut in the middle of one would leave a name that is not UTF-8.
    std::string long_name;
    for (int i = 0; i < 200; ++i) {
        long_name += "\xC3\xA9";
    }
    const auto cut = conflictName(long_name + ".txt", when);
    EXPECT_LE(cut.size(), 255u);
    const auto stem = cut.size() - stamp.size() - 4;
    EXPECT_EQ(stem % 2, 0u);
    EXPECT_EQ(cut.substr(stem), stamp + ".txt");
    EXPECT_EQ(cut.substr(0, stem), long_name.substr(0, stem));
}

relay::RelayItemSummary entry(std::string identifier, std::string filename) {
    relay::RelayItemSummary item;
    item.identifier = std::move(identifier);
    item.filename = std::move(filename);
    return item;
}

// The page as JSON text, where '%' stands for a byte no UTF-8 text holds, '~' for an
// overlong '/' and '^' for a backslash before such a byte.
Bytes page(std::vector<relay::RelayItemSummary> items, std::optional<std::string> cursor = {}) {
    const auto text = json::encode(relay::RelayListReply{std::move(items), std::move(cursor)});
    Bytes out;
    for (const auto byte : text.value()) {
        const std::string bytes = byte == '%'   ? "\xFF"
                                  : byte == '~' ? "\xC0\xAF"
                                  : byte == '^' ? "\\\xFF"
                                                : std::string(1, static_cast<char>(byte));
        out.insert(out.end(), bytes.begin(), bytes.end());
    }
    return out;
}

TEST(ListingPages, EntriesAreFiledWhereTheyWereFoundAndBadOnesNeverReachTheVolume) {
    const auto later = std::chrono::steady_clock::now() + std::chrono::hours(1);
    struct Case {
        const char* name;
        std::string folder;
        std::vector<Bytes> pages;
        int error;
        std::vector<std::string> filed;
    };
    const Case cases[] = {
        {"own name wins", "d", {page({entry("d/x", "y"), entry("d/y", "y")})}, 0, {"d/y"}},
        {"root", "", {page({entry("x", "x")}, "c1"), page({entry("y", "y")})}, 0, {"x", "y"}},
        {"bad names left out",
         "d",
         {page({entry("d/", ""), entry("d/.", "."), entry("d/..", ".."), entry("d/a/b", "a/b"),
                entry("d/n", std::string("a\0b", 3)), entry("d/l", std::string(256, 'l')),
                entry("d/ok", "ok")})},
         0,
         {"d/ok"}},
        {"names not UTF-8 left out",
         "d",
         {page({entry("d/%", "%"), entry("d/a", "a~"), entry("d/b", "b\\%"),
                entry("d/\xC3\xA9", "\xC3\xA9")})},
         0,
         {"d/\xC3\xA9"}},
        {"stray byte after an escape", "d", {page({entry("d/x", "^")})}, EIO, {}},
        {"stray byte outside a name",
         "d",
         {Bytes{'{', '"', 'i', 't', 'e', 'm', 's', '"', ':', '[', ']', 0xFF, '}'}},
         EIO,
         {}},
        {"another folder", "d", {page({entry("d/x", "x"), entry("e/y", "y")})}, EIO, {}},
        {"the root itself", "", {page({entry("", "x")})}, EIO, {}},
        {"cursor stands still", "d", {page({}, "c"), page({}, "c")}, EIO, {}},
        {"not a listing", "d", {Bytes{'{'}}, EIO, {}},
    };
    for (const auto& c : cases) {
        ListingPages pages(c.folder, later);
        int error = 0;
        for (const auto& body : c.pages) {
            std::optional<std::string> cursor;
            if ((error = pages.add(body, cursor)) != 0) {
                break;
            }
        }
        EXPECT_EQ(error, c.error) << c.name;
        std::vector<std::string> filed;
        for (const auto& item : pages.take()) {
            filed.push_back(item.identifier);
        }
        if (c.error == 0) {
            EXPECT_EQ(filed, c.filed) << c.name;
        }
    }
}

TEST(ListingPages, AListingThatNeverEndsIsAnErrorNotUnboundedMemory) {
    ListingPages endless("d", std::chrono::steady_clock::now() + std::chrono::hours(1));
    int error = 0;
    std::size_t pages = 0;
    while (error == 0 && pages <= kListPageLimit) {
        std::optional<std::string> cursor;
        error = endless.add(page({entry("d/x", "x")}, std::to_string(pages++)), cursor);
    }
    EXPECT_EQ(error, EIO);
    EXPECT_EQ(pages, kListPageLimit + 1);

    ListingPages late("d", std::chrono::steady_clock::now() - std::chrono::seconds(1));
    std::optional<std::string> cursor;
    EXPECT_EQ(late.add(page({entry("d/x", "x")}), cursor), EIO);
}

}  // namespace
}  // namespace skiff::volume
