#include "transfer/transfer_coordinator.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "common/io_runtime.hpp"
#include "common/run_sync.hpp"
#include "support/child_process.hpp"

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

Bytes readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::int64_t raw(UsbMuxRelayError e) {
    return static_cast<std::int64_t>(e);
}

RelayAnswer rejection(RelayDeviceStatus status) {
    const FileIODeviceRejection body{static_cast<std::int64_t>(status)};
    return {raw(UsbMuxRelayError::deviceStatus), static_cast<std::int64_t>(status),
            json::encode(body).value()};
}

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
    std::vector<std::uint64_t> answeredWriteOffsets;

    asio::awaitable<RelayAnswer> send(std::uint16_t code, SharedBytes body) override {
        codes.push_back(code);
        if (code == 11) {
            writeChunkBodies.push_back(body.bytes());
            if (static_cast<int>(writeChunkBodies.size()) == loseWriteChunkSend) {
                co_return RelayAnswer{raw(UsbMuxRelayError::transportFailed), 0, {}};
            }
        }
        if (lostSends > 0) {
            --lostSends;
            co_return RelayAnswer{raw(UsbMuxRelayError::notConnected), 0, {}};
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
        co_return answer(code, body.bytes());
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
                if (request.expectedContentVersion &&
                    (it == items.end() || it->second.version != *request.expectedContentVersion)) {
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
    std::vector<int> seen() {
        std::lock_guard guard(lock);
        return percents;
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
                                                            [this] { return now.load(); });
        coordinator->setProgressSink(sink);
    }
    void TearDown() override { runtime.stop(); }

    SharedFileDescriptor fetch(const std::string& id) {
        return runSync(runtime.executor(), coordinator->fetchRemoteFile(id, session));
    }
    RelayItemSummary push(FileIOBeginWriteRequest request) {
        return runSync(runtime.executor(), coordinator->pushSharedFile(std::move(request)));
    }
    TransferError::Case failureOf(auto call) {
        try {
            call();
        } catch (const TransferError& error) {
            return error.errorCase();
        }
        ADD_FAILURE() << "the transfer did not fail";
        return TransferError::Case::ioFailed;
    }
    std::vector<std::string> containerFiles() {
        std::vector<std::string> names;
        if (fs::exists(containerPath)) {
            for (const auto& entry : fs::directory_iterator(containerPath)) {
                names.push_back(entry.path().filename().string());
            }
        }
        return names;
    }
    std::vector<int> allSteps() { return {10, 20, 30, 40, 50, 60, 70, 80, 90, 100}; }

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

TEST_F(TransferCoordinatorTest, EmptyItemGivesEmptyFileWithoutChunksOrProgress) {
    phone->items["empty"] = {{}, {'v'}};
    const auto descriptor = fetch("empty");
    EXPECT_EQ(descriptor.byteCount, 0u);
    EXPECT_EQ(descriptor.fileName, "transfer_" + descriptor.token + ".bin");
    EXPECT_EQ(fs::file_size(containerPath / descriptor.fileName), 0u);
    EXPECT_EQ(phone->count(9), 0);
    EXPECT_TRUE(sink->seen().empty());
}

TEST_F(TransferCoordinatorTest, ChunkBoundaryAndByteForByteContent) {
    phone->items["exact"] = {pattern(kChunkSize), {'a'}};
    phone->items["over"] = {pattern(kChunkSize + 1), {'b'}};

    const auto exact = fetch("exact");
    EXPECT_EQ(phone->count(9), 1);
    EXPECT_EQ(readFile(containerPath / exact.fileName), phone->items["exact"].content);
    EXPECT_EQ(exact.contentVersion, Bytes{'a'});
    EXPECT_EQ(exact.metadataVersion, Bytes{'m'});
    EXPECT_EQ(sink->seen(), allSteps());

    sink->percents.clear();
    const auto over = fetch("over");
    EXPECT_EQ(phone->count(9), 3);
    EXPECT_EQ(readFile(containerPath / over.fileName), phone->items["over"].content);
    // The first chunk reaches 99 %: every step up to 90 at once, then 100 at the end.
    EXPECT_EQ(sink->seen(), allSteps());
    EXPECT_EQ(sink->last.sessionID, session);
    EXPECT_EQ(sink->last.completedBytes, kChunkSize + 1u);
    EXPECT_EQ(sink->last.totalBytes, kChunkSize + 1u);
    EXPECT_EQ(runSync(runtime.executor(), coordinator->activeReadCount()), 2u);

    runSync(runtime.executor(), coordinator->releaseRead(exact.token));
    runSync(runtime.executor(), coordinator->releaseRead(over.token));
    EXPECT_TRUE(containerFiles().empty());
    // Unknown and already released tokens are fine.
    runSync(runtime.executor(), coordinator->releaseRead(over.token));
    runSync(runtime.executor(), coordinator->releaseWrite("never-seen"));
}

TEST_F(TransferCoordinatorTest, FailureAfterFirstChunkLeavesNoFileAndNextFetchWorks) {
    phone->items["big"] = {pattern(2 * kChunkSize + 10), {'v'}};
    phone->failReadChunk = 2;
    EXPECT_EQ(failureOf([&] { fetch("big"); }), TransferError::Case::transport);
    // The lost tunnel was re-established once and the second try was final.
    EXPECT_EQ(phone->reestablished, 1);
    EXPECT_TRUE(containerFiles().empty());
    EXPECT_EQ(runSync(runtime.executor(), coordinator->activeReadCount()), 0u);
    EXPECT_EQ(sink->seen(), (std::vector<int>{10, 20, 30, 40}));

    phone->failReadChunk = 0;
    const auto again = fetch("big");
    EXPECT_EQ(readFile(containerPath / again.fileName), phone->items["big"].content);

    EXPECT_EQ(failureOf([&] { fetch("missing"); }), TransferError::Case::deviceRejected);
}

TEST_F(TransferCoordinatorTest, LostTunnelIsRetriedOnce) {
    phone->items["small"] = {pattern(100), {'v'}};
    phone->lostSends = 1;
    const auto descriptor = fetch("small");
    EXPECT_EQ(phone->reestablished, 1);
    EXPECT_EQ(readFile(containerPath / descriptor.fileName), phone->items["small"].content);

    phone->lostSends = 2;
    EXPECT_EQ(failureOf([&] { fetch("small"); }), TransferError::Case::transport);
    EXPECT_EQ(phone->reestablished, 2);
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
    EXPECT_EQ(runSync(runtime.executor(), coordinator->activeReadCount()), 1u);
}

TEST_F(TransferCoordinatorTest, PushSendsTheFileAndKeepsItUntilReleased) {
    const Bytes content = pattern(kChunkSize + 5);
    storage->create("upload.src", 0);
    std::ofstream(containerPath / "upload.src", std::ios::binary)
        .write(reinterpret_cast<const char*>(content.data()),
               static_cast<std::streamsize>(content.size()));
    FileIOBeginWriteRequest request{"doc", session, {}, "tok", "upload.src", content.size()};

    const auto summary = push(request);
    EXPECT_EQ(summary.size, content.size());
    EXPECT_EQ(phone->items["doc"].content, content);
    EXPECT_EQ(phone->count(11), 2);
    EXPECT_EQ(sink->seen(), allSteps());
    EXPECT_TRUE(fs::exists(containerPath / "upload.src"));
    EXPECT_EQ(runSync(runtime.executor(), coordinator->activeWriteCount()), 1u);
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
    FileIOBeginWriteRequest stale{"doc", session, {'v', '0'}, "t1", "src", 10};
    EXPECT_EQ(failureOf([&] { push(stale); }), TransferError::Case::deviceRejected);
    EXPECT_EQ(phone->count(11), 0);
    // A started push stays listed until its end request, failed or not.
    EXPECT_EQ(runSync(runtime.executor(), coordinator->activeWriteCount()), 1u);

    FileIOBeginWriteRequest missingSource{"doc", session, {'v', '1'}, "t2", "absent", 10};
    EXPECT_EQ(failureOf([&] { push(missingSource); }), TransferError::Case::ioFailed);

    FileIOBeginWriteRequest outside{"doc", session, {'v', '1'}, "t3", "../src", 10};
    EXPECT_EQ(failureOf([&] { push(outside); }), TransferError::Case::ioFailed);

    phone->stuckNextOffset = 0;
    FileIOBeginWriteRequest stuck{"doc", session, {'v', '1'}, "t4", "src", 10};
    EXPECT_EQ(failureOf([&] { push(stuck); }), TransferError::Case::ioFailed);
    EXPECT_EQ(phone->count(6), 0);
}

// Chunks after the first are sent before the first is answered; these guard what that
// changes: answers taken in sending order, a failure behind a success, short answers.
TEST_F(TransferCoordinatorTest, SecondChunkFailingBehindASuccessFailsThePushWithoutCommit) {
    const Bytes content = pattern(3 * kChunkSize);
    storage->create("src", content.size());
    phone->rejectWriteChunk = 2;
    FileIOBeginWriteRequest request{"doc", session, {}, "tok", "src", content.size()};
    EXPECT_EQ(failureOf([&] { push(request); }), TransferError::Case::deviceRejected);
    // The third chunk, queued behind the refused one, never reached the app.
    EXPECT_EQ(phone->count(11), 2);
    EXPECT_EQ(phone->count(6), 0);
    EXPECT_EQ(sink->seen(), (std::vector<int>{10, 20, 30}));
    EXPECT_FALSE(phone->items.contains("doc"));
}

TEST_F(TransferCoordinatorTest, AnswersArrivingOutOfOrderAreTakenInSendingOrder) {
    const Bytes content = pattern(3 * kChunkSize + 7);
    storage->create("src", 0);
    std::ofstream(containerPath / "src", std::ios::binary)
        .write(reinterpret_cast<const char*>(content.data()),
               static_cast<std::streamsize>(content.size()));
    phone->answerSecondChunkFirst = true;
    FileIOBeginWriteRequest request{"doc", session, {}, "tok", "src", content.size()};
    push(request);
    EXPECT_EQ(phone->answeredWriteOffsets.at(0), kChunkSize);
    EXPECT_EQ(phone->answeredWriteOffsets.at(1), 0u);
    EXPECT_EQ(phone->items["doc"].content, content);
    EXPECT_EQ(sink->seen(), allSteps());
}

TEST_F(TransferCoordinatorTest, ShortAnswerRealignsTheChunksInFlight) {
    const Bytes content = pattern(2 * kChunkSize + 3);
    phone->items["remote"] = {content, {'v'}};
    storage->create("src", 0);
    std::ofstream(containerPath / "src", std::ios::binary)
        .write(reinterpret_cast<const char*>(content.data()),
               static_cast<std::streamsize>(content.size()));
    for (const bool pushing : {false, true}) {
        SCOPED_TRACE(pushing ? "push" : "fetch");
        sink->percents.clear();
        phone->shortFirstChunkBy = 1000;
        if (pushing) {
            push({"copy", session, {}, "tok", "src", content.size()});
            EXPECT_EQ(phone->items["copy"].content, content);
        } else {
            const auto descriptor = fetch("remote");
            EXPECT_EQ(readFile(containerPath / descriptor.fileName), content);
        }
        EXPECT_EQ(sink->seen(), allSteps());
    }
}

// A phone that answers every request the same way.
class OneAnswerPhone : public RelaySender {
public:
    explicit OneAnswerPhone(RelayAnswer answer) : answer_(std::move(answer)) {}
    asio::awaitable<RelayAnswer> send(std::uint16_t, SharedBytes) override { co_return answer_; }
    asio::awaitable<void> reestablish() override { co_return; }

private:
    RelayAnswer answer_;
};

TEST(TransferRefusal, CarriesTheAppsRecordAsItCameAndItsMappedStatus) {
    const auto deviceStatus = raw(UsbMuxRelayError::deviceStatus);
    struct Case {
        const char* name;
        RelayAnswer answer;
        FileIODeviceRejection rejection;
        RelayDeviceStatus mapped;
    };
    const Case cases[] = {
        {"conflict record",
         rejection(RelayDeviceStatus::versionConflict),
         {6},
         RelayDeviceStatus::versionConflict},
        // The record wins over the answer code when they differ.
        {"record over code",
         {deviceStatus, 1, json::encode(FileIODeviceRejection{7}).value()},
         {7},
         RelayDeviceStatus::notDirectory},
        // A status the service does not know is passed on, and counts as an I/O error here.
        {"unknown status",
         {deviceStatus, 0, json::encode(FileIODeviceRejection{-7}).value()},
         {-7},
         RelayDeviceStatus::ioError},
        // A refusal without a record is told by its answer code.
        {"code only", {deviceStatus, 1, {}}, {1}, RelayDeviceStatus::notFound},
    };
    runtime::IoRuntime runtime;
    runtime.start();
    test::TempDir base;
    for (const auto& c : cases) {
        auto coordinator = std::make_shared<TransferCoordinator>(
            runtime.executor(), std::make_shared<OneAnswerPhone>(c.answer),
            std::make_shared<SharedFileStorage>(fs::path(base.path()) / "container"));
        try {
            runSync(runtime.executor(), coordinator->fetchRemoteFile("doc", Uuid::random()));
            ADD_FAILURE() << c.name << ": the fetch did not fail";
        } catch (const TransferError& error) {
            EXPECT_EQ(error.errorCase(), TransferError::Case::deviceRejected) << c.name;
            EXPECT_EQ(error.rejection(), c.rejection) << c.name;
            EXPECT_EQ(error.deviceStatus(), c.mapped) << c.name;
        }
    }
    runtime.stop();
}

TEST(TransferErrorMapping, EachCaseHasItsBridgeStatus) {
    using C = TransferError::Case;
    EXPECT_EQ(bridgeErrorFor(TransferError::rejected(RelayDeviceStatus::notFound)),
              FileIOBridgeError::deviceRejected);
    EXPECT_EQ(bridgeErrorFor(TransferError::transport(UsbMuxRelayError::payloadTooLarge)),
              FileIOBridgeError::transportFailed);
    EXPECT_EQ(bridgeErrorFor(TransferError(C::noDevice)), FileIOBridgeError::noDevice);
    EXPECT_EQ(bridgeErrorFor(TransferError(C::encodeFailed)), FileIOBridgeError::encodeFailed);
    EXPECT_EQ(bridgeErrorFor(TransferError(C::decodeFailed)),
              FileIOBridgeError::invalidDeviceReply);
    EXPECT_EQ(bridgeErrorFor(TransferError(C::ioFailed)), FileIOBridgeError::storageFailed);
}

}  // namespace
}  // namespace skiff::transfer
