#include "transfer/transfer_coordinator.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "common/byte_text.hpp"
#include "common/io_runtime.hpp"
#include "common/run_sync.hpp"
#include "support/child_process.hpp"
#include "support/file_text.hpp"

namespace skiff::transfer {
namespace {

namespace fs = std::filesystem;
using relay::RelayDeviceStatus;
using relay::RelayItemSummary;
using relay::UsbMuxRelayError;
using testing::runSync;

Bytes pattern(std::size_t size) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<std::uint8_t>((i * 131 + i / 4096) & 0xFF);
    }
    return bytes;
}

std::int64_t raw(UsbMuxRelayError e) {
    return static_cast<std::int64_t>(e);
}

RelayAnswer rejection(RelayDeviceStatus status) {
    const FileIODeviceRejection body{static_cast<std::int64_t>(status)};
    return {raw(UsbMuxRelayError::deviceStatus), static_cast<std::int64_t>(status),
            json::encode(body).value()};
}

const std::vector<int> kAllSteps = {10, 20, 30, 40, 50, 60, 70, 80, 90, 100};

// A phone in memory: items by identifier, each with content and a version, serving the
// lookup, read-chunk and staged write codes. Runs on the coordinator's strand.
class FakePhone : public RelaySender {
public:
    struct Item {
        Bytes content;
        Bytes version;
    };

    std::map<std::string, Item> items;
    std::vector<std::uint16_t> codes;  // every send, retries included
    int reestablished = 0;
    // From the n-th read-chunk request (1-based) on, every one finds the tunnel failed.
    int failReadChunk = 0;
    // The next this many sends find the tunnel lost.
    int lostSends = 0;
    // The n-th write-chunk send (1-based, retries included) finds the tunnel lost.
    int loseWriteChunkSend = 0;
    std::vector<Bytes> writeChunkBodies;  // every write-chunk body sent, retries included
    // Write-chunk replies name this offset instead of the true next one.
    std::optional<std::uint64_t> stuckNextOffset;
    // The n-th write chunk (1-based) is refused.
    int rejectWriteChunk = 0;
    // The first chunk answered (read or write) takes this many bytes fewer than sent.
    std::uint64_t shortFirstChunkBy = 0;
    // The first write chunk is answered only after the second was.
    bool answerSecondChunkFirst = false;
    // When set, every request is answered with this.
    std::optional<RelayAnswer> always;
    std::vector<std::uint64_t> answeredWriteOffsets;

    asio::awaitable<RelayAnswer> send(std::uint16_t code, SharedBytes body) override {
        codes.push_back(code);
        if (code == 11) {
            writeChunkBodies.push_back(body.copy());
            if (static_cast<int>(writeChunkBodies.size()) == loseWriteChunkSend) {
                co_return RelayAnswer{raw(UsbMuxRelayError::transportFailed), 0, {}};
            }
        }
        if (lostSends > 0) {
            --lostSends;
            co_return RelayAnswer{raw(UsbMuxRelayError::notConnected), 0, {}};
        }
        if (always) {
            co_return *always;
        }
        if (code == 11 && answerSecondChunkFirst) {
            if (!held) {
                // Bounded: a coordinator that waits for this answer before sending the next
                // chunk still finishes, in the wrong order.
                held = std::make_shared<asio::steady_timer>(co_await asio::this_coro::executor,
                                                            testing::kWaitLimit);
                const auto timer = held;
                std::error_code ignored;
                co_await timer->async_wait(asio::redirect_error(asio::use_awaitable, ignored));
                answerSecondChunkFirst = false;
            } else {
                held->cancel();
            }
        }
        co_return answer(code, body.copy());
    }
    asio::awaitable<void> reestablish() override {
        ++reestablished;
        co_return;
    }

    int count(std::uint16_t code) const {
        return static_cast<int>(std::count(codes.begin(), codes.end(), code));
    }

private:
    RelayAnswer ok(Bytes data) { return {0, 0, std::move(data)}; }

    RelayItemSummary summaryOf(const std::string& id) {
        RelayItemSummary summary;
        summary.identifier = id;
        summary.filename = id;
        summary.size = items[id].content.size();
        summary.contentVersion = items[id].version;
        summary.metadataVersion = Bytes{'m'};
        return summary;
    }

    RelayAnswer answer(std::uint16_t code, const Bytes& body) {
        switch (code) {
            case 2: {
                const auto lookup = json::decode<relay::RelayLookupRequest>(body).value();
                if (!items.contains(lookup.identifier)) {
                    return rejection(RelayDeviceStatus::notFound);
                }
                return ok(json::encode(summaryOf(lookup.identifier)).value());
            }
            case 9: {
                if (failReadChunk != 0 && ++readChunks >= failReadChunk) {
                    return {raw(UsbMuxRelayError::transportFailed), 0, {}};
                }
                const auto request = decodeReadChunkRequest(body).value();
                const Bytes& content = items.at(request.identifier).content;
                const auto end =
                    std::min<std::uint64_t>(content.size(), request.offset + request.length) -
                    std::exchange(shortFirstChunkBy, 0);
                return ok(Bytes(content.begin() + static_cast<std::ptrdiff_t>(request.offset),
                                content.begin() + static_cast<std::ptrdiff_t>(end)));
            }
            case 15: {
                const auto request = json::decode<RelayTruncateWriteRequest>(body).value();
                const auto it = items.find(request.identifier);
                const Bytes current = it == items.end() ? Bytes{} : it->second.version;
                if (request.expectedContentVersion && current != *request.expectedContentVersion) {
                    return rejection(RelayDeviceStatus::versionConflict);
                }
                staged.assign(request.size, 0);
                return ok(Bytes{'{', '}'});
            }
            case 11: {
                if (++writeChunks == rejectWriteChunk) {
                    return rejection(RelayDeviceStatus::ioError);
                }
                const auto request = decodeWriteChunkRequest(body).value();
                answeredWriteOffsets.push_back(request.offset);
                const auto taken = request.bytes.size() - std::exchange(shortFirstChunkBy, 0);
                std::copy_n(request.bytes.begin(), taken,
                            staged.begin() + static_cast<std::ptrdiff_t>(request.offset));
                const RelayWriteChunkResponse reply{
                    stuckNextOffset.value_or(request.offset + taken), staged.size(), {}};
                return ok(json::encode(reply).value());
            }
            case 6: {
                const auto request = json::decode<RelayCommitWriteRequest>(body).value();
                items[request.identifier] = {staged, Bytes{'v', '2'}};
                return ok(json::encode(summaryOf(request.identifier)).value());
            }
        }
        return {raw(UsbMuxRelayError::unsupportedSelector), 0, {}};
    }

    int readChunks = 0;
    int writeChunks = 0;
    Bytes staged;
    std::shared_ptr<asio::steady_timer> held;
};

class RecordingSink : public ProgressSink {
public:
    void fileIOProgress(const TransferProgress& progress) override {
        std::lock_guard guard(lock);
        percents.push_back(progress.percent);
        last = progress;
    }
    // The percents seen since the last call.
    std::vector<int> take() {
        std::lock_guard guard(lock);
        return std::exchange(percents, {});
    }

    std::mutex lock;
    std::vector<int> percents;
    TransferProgress last;
};

class TransferCoordinatorTest : public ::testing::Test {
protected:
    void SetUp() override {
        runtime.start();
        coordinator = std::make_shared<TransferCoordinator>(runtime.executor(), phone, storage,
                                                            sink, [this] { return now.load(); });
    }
    void TearDown() override { runtime.stop(); }

    SharedFileDescriptor fetch(const std::string& id) {
        return runSync(runtime.executor(), coordinator->fetchRemoteFile(id, session));
    }
    RelayItemSummary push(FileIOBeginWriteRequest request) {
        return runSync(runtime.executor(), coordinator->pushSharedFile(std::move(request)));
    }
    TransferError failure(auto call) {
        try {
            call();
        } catch (const TransferError& error) {
            return error;
        }
        ADD_FAILURE() << "the transfer did not fail";
        return TransferError(TransferError::Case::ioFailed);
    }
    TransferError::Case failureOf(auto call) { return failure(call).errorCase(); }
    Bytes fileBytes(const std::string& name) {
        return testing::bytesOf(test::readFile(containerPath / name));
    }
    void putSource(const std::string& name, const Bytes& content) {
        storage->create(name, 0);
        test::writeFile(containerPath / name, testing::textOf(content));
    }
    std::size_t activeReads() {
        return runSync(runtime.executor(), coordinator->activeReadCount());
    }
    std::size_t activeWrites() {
        return runSync(runtime.executor(), coordinator->activeWriteCount());
    }

    runtime::IoRuntime runtime;
    test::TempDir base;
    fs::path containerPath = fs::path(base.path()) / "container";
    std::shared_ptr<FakePhone> phone = std::make_shared<FakePhone>();
    std::shared_ptr<RecordingSink> sink = std::make_shared<RecordingSink>();
    std::shared_ptr<SharedFileStorage> storage = std::make_shared<SharedFileStorage>(containerPath);
    std::atomic<TransferCoordinator::Clock::time_point> now{TransferCoordinator::Clock::now()};
    std::shared_ptr<TransferCoordinator> coordinator;
    Uuid session = Uuid::random();
};

TEST_F(TransferCoordinatorTest, FetchedFilesMatchTheItemAcrossChunkBoundariesUntilReleased) {
    struct Case {
        std::size_t size;
        int chunkRequests;
        std::vector<int> progress;
    };
    // Whatever the size, the first chunk reaches 99 % or more: every step up to 90 at once,
    // then 100 at the end; an empty item reports none.
    const Case cases[] = {{0, 0, {}}, {kChunkSize, 1, kAllSteps}, {kChunkSize + 1, 2, kAllSteps}};
    std::vector<std::string> tokens;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.size);
        const std::string id = "item" + std::to_string(c.size);
        phone->items[id] = {pattern(c.size), {'a'}};
        phone->codes.clear();
        const auto descriptor = fetch(id);
        tokens.push_back(descriptor.token);
        EXPECT_EQ(descriptor.byteCount, c.size);
        EXPECT_EQ(descriptor.fileName, "transfer_" + descriptor.token + ".bin");
        EXPECT_EQ(fileBytes(descriptor.fileName), phone->items[id].content);
        EXPECT_EQ(descriptor.contentVersion, Bytes{'a'});
        EXPECT_EQ(descriptor.metadataVersion, Bytes{'m'});
        EXPECT_EQ(phone->count(9), c.chunkRequests);
        EXPECT_EQ(sink->take(), c.progress);
    }
    EXPECT_EQ(sink->last.sessionID, session);
    EXPECT_EQ(sink->last.completedBytes, kChunkSize + 1u);
    EXPECT_EQ(sink->last.totalBytes, kChunkSize + 1u);
    EXPECT_EQ(activeReads(), 3u);

    for (const auto& token : tokens) {
        runSync(runtime.executor(), coordinator->releaseRead(token));
    }
    EXPECT_TRUE(fs::is_empty(containerPath));
    // Unknown and already released tokens are fine.
    runSync(runtime.executor(), coordinator->releaseRead(tokens.front()));
    runSync(runtime.executor(), coordinator->releaseWrite("never-seen"));
}

TEST_F(TransferCoordinatorTest, ALostTunnelIsRetriedOnceAndAFailedFetchLeavesNoFile) {
    phone->items["big"] = {pattern(2 * kChunkSize + 10), {'v'}};
    phone->failReadChunk = 2;
    EXPECT_EQ(failureOf([&] { fetch("big"); }), TransferError::Case::transport);
    // The lost tunnel was re-established once and the second try was final.
    EXPECT_EQ(phone->reestablished, 1);
    EXPECT_TRUE(fs::is_empty(containerPath));
    EXPECT_EQ(activeReads(), 0u);
    EXPECT_EQ(sink->take(), (std::vector<int>{10, 20, 30, 40}));

    phone->failReadChunk = 0;
    EXPECT_EQ(fileBytes(fetch("big").fileName), phone->items["big"].content);
    EXPECT_EQ(failureOf([&] { fetch("missing"); }), TransferError::Case::deviceRejected);

    phone->lostSends = 1;
    EXPECT_EQ(fileBytes(fetch("big").fileName), phone->items["big"].content);
    EXPECT_EQ(phone->reestablished, 2);
    phone->lostSends = 2;
    EXPECT_EQ(failureOf([&] { fetch("big"); }), TransferError::Case::transport);
    EXPECT_EQ(phone->reestablished, 3);
}

TEST_F(TransferCoordinatorTest, CleanUpRemovesOnlyEntriesOlderThanTwoMinutes) {
    phone->items["a"] = {pattern(10), {'v'}};
    const auto start = now.load();
    const auto older = fetch("a");
    now = start + std::chrono::seconds(2);
    const auto newer = fetch("a");

    now = start + std::chrono::seconds(121);  // older is 121 s old, newer 119 s
    runSync(runtime.executor(), coordinator->cleanUp());
    EXPECT_FALSE(fs::exists(containerPath / older.fileName));
    EXPECT_TRUE(fs::exists(containerPath / newer.fileName));
    EXPECT_EQ(activeReads(), 1u);
}

// Chunks after the first are sent before the first is answered; answers are still taken
// in sending order.
TEST_F(TransferCoordinatorTest, PushSendsTheFileInOrderAndKeepsItUntilReleased) {
    const Bytes content = pattern(3 * kChunkSize + 7);
    putSource("upload.src", content);
    phone->answerSecondChunkFirst = true;
    const auto summary = push({"doc", session, {}, "tok", "upload.src", content.size()});
    EXPECT_EQ(summary.size, content.size());
    EXPECT_EQ(phone->items["doc"].content, content);
    EXPECT_EQ(phone->count(11), 4);
    EXPECT_EQ(phone->answeredWriteOffsets.at(0), kChunkSize);
    EXPECT_EQ(phone->answeredWriteOffsets.at(1), 0u);
    EXPECT_EQ(sink->take(), kAllSteps);
    EXPECT_TRUE(fs::exists(containerPath / "upload.src"));
    EXPECT_EQ(activeWrites(), 1u);
    runSync(runtime.executor(), coordinator->releaseWrite("tok"));
    EXPECT_FALSE(fs::exists(containerPath / "upload.src"));
}

TEST_F(TransferCoordinatorTest, ChunkLostWithTheTunnelIsSentAgainWithTheSameBytes) {
    const Bytes content = pattern(2 * kChunkSize + 7);
    storage->create("upload.src", 0);
    std::ofstream(containerPath / "upload.src", std::ios::binary)
        .write(reinterpret_cast<const char*>(content.data()),
               static_cast<std::streamsize>(content.size()));
    phone->loseWriteChunkSend = 2;
    push({"doc", session, {}, "tok", "upload.src", content.size()});

    EXPECT_EQ(phone->reestablished, 1);
    ASSERT_EQ(phone->writeChunkBodies.size(), 4u);
    // Which chunk the lost send carried depends on how the window interleaves; its retry
    // is the next send of the same offset.
    const Bytes& lost = phone->writeChunkBodies[1];
    const auto offsetOf = [](const Bytes& body) { return decodeWriteChunkRequest(body)->offset; };
    const auto retry =
        std::find_if(phone->writeChunkBodies.begin() + 2, phone->writeChunkBodies.end(),
                     [&](const Bytes& b) { return offsetOf(b) == offsetOf(lost); });
    ASSERT_NE(retry, phone->writeChunkBodies.end());
    EXPECT_EQ(*retry, lost);
    EXPECT_EQ(phone->items["doc"].content, content);
}

TEST_F(TransferCoordinatorTest, PushRefusals) {
    phone->items["doc"] = {pattern(10), {'v', '1'}};
    storage->create("src", 10);
    // A writer that saw no version still has it checked: the item has one now.
    for (const Bytes& seen : {Bytes{'v', '0'}, Bytes{}}) {
        FileIOBeginWriteRequest stale{"doc", session, seen, "t1", "src", 10};
        EXPECT_EQ(failureOf([&] { push(stale); }), TransferError::Case::deviceRejected);
    }
    EXPECT_EQ(phone->count(11), 0);
    // A started push stays listed until its end request, failed or not.
    EXPECT_EQ(activeWrites(), 1u);

    FileIOBeginWriteRequest missingSource{"doc", session, {'v', '1'}, "t2", "absent", 10};
    EXPECT_EQ(failureOf([&] { push(missingSource); }), TransferError::Case::ioFailed);

    FileIOBeginWriteRequest outside{"doc", session, {'v', '1'}, "t3", "../src", 10};
    EXPECT_EQ(failureOf([&] { push(outside); }), TransferError::Case::ioFailed);

    phone->stuckNextOffset = 0;
    FileIOBeginWriteRequest stuck{"doc", session, {'v', '1'}, "t4", "src", 10};
    EXPECT_EQ(failureOf([&] { push(stuck); }), TransferError::Case::ioFailed);
    EXPECT_EQ(phone->count(6), 0);
}

TEST_F(TransferCoordinatorTest, SecondChunkFailingBehindASuccessFailsThePushWithoutCommit) {
    const Bytes content = pattern(3 * kChunkSize);
    storage->create("src", content.size());
    phone->rejectWriteChunk = 2;
    FileIOBeginWriteRequest request{"doc", session, {}, "tok", "src", content.size()};
    EXPECT_EQ(failureOf([&] { push(request); }), TransferError::Case::deviceRejected);
    // The third chunk, queued behind the refused one, never reached the app.
    EXPECT_EQ(phone->count(11), 2);
    EXPECT_EQ(phone->count(6), 0);
    EXPECT_EQ(sink->take(), (std::vector<int>{10, 20, 30}));
    EXPECT_FALSE(phone->items.contains("doc"));
}

TEST_F(TransferCoordinatorTest, ShortAnswerRealignsTheChunksInFlight) {
    const Bytes content = pattern(2 * kChunkSize + 3);
    phone->items["remote"] = {content, {'v'}};
    putSource("src", content);
    for (const bool pushing : {false, true}) {
        SCOPED_TRACE(pushing ? "push" : "fetch");
        phone->shortFirstChunkBy = 1000;
        if (pushing) {
            push({"copy", session, {}, "tok", "src", content.size()});
            EXPECT_EQ(phone->items["copy"].content, content);
        } else {
            EXPECT_EQ(fileBytes(fetch("remote").fileName), content);
        }
        EXPECT_EQ(sink->take(), kAllSteps);
    }
}

TEST_F(TransferCoordinatorTest, ARefusalIsMappedFromTheAppsRecordOrItsAnswerCode) {
    const auto deviceStatus = raw(UsbMuxRelayError::deviceStatus);
    struct Case {
        const char* name;
        RelayAnswer answer;
        RelayDeviceStatus mapped;
    };
    const Case cases[] = {
        {"conflict record", rejection(RelayDeviceStatus::versionConflict),
         RelayDeviceStatus::versionConflict},
        // The record wins over the answer code when they differ.
        {"record over code",
         {deviceStatus, 1, json::encode(FileIODeviceRejection{7}).value()},
         RelayDeviceStatus::notDirectory},
        // A status the service does not know counts as an I/O error.
        {"unknown status",
         {deviceStatus, 0, json::encode(FileIODeviceRejection{-7}).value()},
         RelayDeviceStatus::ioError},
        // A refusal without a record is told by its answer code.
        {"code only", {deviceStatus, 1, {}}, RelayDeviceStatus::notFound},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        phone->always = c.answer;
        const auto error = failure([&] { fetch("doc"); });
        EXPECT_EQ(error.errorCase(), TransferError::Case::deviceRejected);
        EXPECT_EQ(error.deviceStatus(), c.mapped);
    }
}

}  // namespace
}  // namespace skiff::transfer
