// The volume's pure parts: how failures become errno values, and the caches that keep
// `ls -l` and sequential reads from asking the phone again.

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include "common/run_sync.hpp"
#include "relay/relay_schema.hpp"
#include "transfer/file_io_records.hpp"
#include "volume/chunk_cache.hpp"
#include "volume/errno_map.hpp"
#include "volume/item_cache.hpp"

namespace skiff::volume {
namespace {

TEST(VolumeErrno, EveryAppStatusHasItsErrnoAndRemovingANonEmptyDirectoryIsNotEmpty) {
    struct Case {
        std::int64_t status;
        Operation operation;
        int expected;
    };
    const Case cases[] = {
        {0, Operation::other, 0},          {1, Operation::other, ENOENT},
        {2, Operation::other, EACCES},     {3, Operation::other, EEXIST},
        {3, Operation::remove, ENOTEMPTY}, {4, Operation::other, EINVAL},
        {5, Operation::other, EIO},        {6, Operation::other, kConflictErrno},
        {7, Operation::other, ENOTDIR},    {8, Operation::other, EISDIR},
        {9, Operation::other, ENOSPC},     {10, Operation::other, EIO},
        {-1, Operation::other, EIO},       {1, Operation::remove, ENOENT},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(errnoOfDeviceStatus(c.status, c.operation), c.expected) << c.status;
    }
}

TEST(VolumeErrno, ALostPhoneOrServiceIsAnIOErrorAndOnlyTheAppsCodeIsMapped) {
    using relay::UsbMuxRelayError;
    const auto raw = [](UsbMuxRelayError e) { return static_cast<std::int64_t>(e); };
    EXPECT_EQ(errnoOfRelay(raw(UsbMuxRelayError::ok), 1), 0);
    EXPECT_EQ(errnoOfRelay(raw(UsbMuxRelayError::notConnected), 1), EIO);
    EXPECT_EQ(errnoOfRelay(raw(UsbMuxRelayError::transportFailed), 1), EIO);
    EXPECT_EQ(errnoOfRelay(raw(UsbMuxRelayError::deviceStatus), 1), ENOENT);
    // A device-status wrapper with status ok is a broken answer, not a success.
    EXPECT_EQ(errnoOfRelay(raw(UsbMuxRelayError::deviceStatus), 0), EIO);

    using transfer::FileIOBridgeError;
    const auto conflict = json::encode(transfer::FileIODeviceRejection{6}).value();
    EXPECT_EQ(errnoOfFileIO(static_cast<std::int64_t>(FileIOBridgeError::deviceRejected), conflict),
              kConflictErrno);
    EXPECT_EQ(errnoOfFileIO(static_cast<std::int64_t>(FileIOBridgeError::deviceRejected), {}), EIO);
    EXPECT_EQ(
        errnoOfFileIO(static_cast<std::int64_t>(FileIOBridgeError::transportFailed), conflict),
        EIO);
    EXPECT_EQ(errnoOfFileIO(0, {}), 0);
}

ChunkKey key(std::uint64_t index, std::string version = "v1") {
    return {"big.bin", Bytes(version.begin(), version.end()), index};
}

ChunkCache::Fetch filling(std::uint8_t value, std::atomic<int>* count = nullptr) {
    return [value, count](Bytes& out) {
        if (count) {
            ++*count;
        }
        out.assign(4, value);
        return 0;
    };
}

TEST(ChunkCache, ReadersOfOneChunkShareOneFetchWhileItIsInFlight) {
    ChunkCache cache(4);
    std::promise<void> release;
    auto released = release.get_future().share();
    std::atomic<int> fetches{0};
    auto first = std::async(std::launch::async, [&] {
        return cache.get(key(0), [&](Bytes& out) {
            ++fetches;
            released.wait();
            out.assign(4, 7);
            return 0;
        });
    });
    ASSERT_TRUE(testing::eventually([&] { return cache.holds(key(0)); }));
    auto second =
        std::async(std::launch::async, [&] { return cache.get(key(0), filling(9, &fetches)); });
    release.set_value();
    ASSERT_TRUE(testing::readyInTime(first));
    ASSERT_TRUE(testing::readyInTime(second));
    EXPECT_EQ(fetches.load(), 1);
    EXPECT_EQ(*second.get().bytes, Bytes(4, 7));
}

TEST(ChunkCache, AFailedFetchReachesItsCallerAndIsTriedAgainNextTime) {
    ChunkCache cache(4);
    const auto failed = cache.get(key(0), [](Bytes&) { return EIO; });
    EXPECT_EQ(failed.error, EIO);
    EXPECT_EQ(failed.bytes, nullptr);
    EXPECT_FALSE(cache.holds(key(0)));
    EXPECT_EQ(*cache.get(key(0), filling(1)).bytes, Bytes(4, 1));
}

TEST(ChunkCache, KeepsTheMostRecentlyUsedChunksAndANewVersionNeverSeesOldBytes) {
    ChunkCache cache(2);
    std::atomic<int> fetches{0};
    cache.get(key(0), filling(0, &fetches));
    cache.get(key(1), filling(1, &fetches));
    cache.get(key(0), filling(0, &fetches));  // 0 is now the most recent
    cache.get(key(2), filling(2, &fetches));  // evicts 1
    EXPECT_TRUE(cache.holds(key(0)));
    EXPECT_FALSE(cache.holds(key(1)));
    EXPECT_EQ(fetches.load(), 3);

    EXPECT_EQ(*cache.get(key(0, "v2"), filling(5)).bytes, Bytes(4, 5));
    cache.dropItem("big.bin");
    EXPECT_FALSE(cache.holds(key(0)));
    EXPECT_FALSE(cache.holds(key(0, "v2")));
}

relay::RelayItemSummary summary(std::string identifier) {
    relay::RelayItemSummary s;
    s.filename = identifier.substr(identifier.rfind('/') + 1);
    s.identifier = std::move(identifier);
    return s;
}

TEST(ItemCache, AListingAnswersForItsEntriesUntilItExpiresOrTheDirectoryChanges) {
    auto now = ItemCache::Clock::time_point{};
    ItemCache cache(std::chrono::seconds(1), [&] { return now; });
    cache.storeListing("docs", {summary("docs/a.txt"), summary("docs/b.txt")});
    EXPECT_TRUE(cache.item("docs/b.txt"));
    ASSERT_TRUE(cache.listing("docs"));

    // A change of an entry drops the directory's listing, not its other entries.
    cache.forget("docs/a.txt");
    EXPECT_FALSE(cache.listing("docs"));
    EXPECT_FALSE(cache.item("docs/a.txt"));
    EXPECT_TRUE(cache.item("docs/b.txt"));

    now += std::chrono::seconds(1);
    EXPECT_FALSE(cache.item("docs/b.txt"));
}

TEST(ItemCache, PathsBecomeIdentifiersAndIdentifiersKnowTheirDirectory) {
    EXPECT_EQ(identifierOfPath("/"), "");
    EXPECT_EQ(identifierOfPath("/a/b.txt"), "a/b.txt");
    EXPECT_EQ(parentOf("a/b.txt"), "a");
    EXPECT_EQ(parentOf("a"), "");
}

}  // namespace
}  // namespace skiff::volume
