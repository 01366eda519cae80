#include "sim/app_transfer.hpp"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <asio.hpp>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "common/run_sync.hpp"
#include "sim/app_storage_fixture.hpp"
#include "sim/companion_app.hpp"
#include "transfer/file_io_records.hpp"
#include "tunnel/socket_tunnel_transport.hpp"
#include "tunnel/tunnel_errors.hpp"

namespace skiff::sim {
namespace {

namespace fs = std::filesystem;
using relay::RelayItemSummary;
using skiff::test::readFile;
using skiff::test::writeFile;
using transfer::encodeReadChunkRequest;
using transfer::kChunkSize;
using transfer::RelayWriteChunkResponse;

Bytes stageBody(const std::string& identifier, std::uint64_t size,
                std::optional<Bytes> expected = std::nullopt) {
    return *json::encode(
        transfer::RelayTruncateWriteRequest{identifier, size, std::move(expected)});
}
Bytes commitBody(const std::string& identifier) {
    return *json::encode(transfer::RelayCommitWriteRequest{identifier});
}
Bytes writeBody(const std::string& identifier, std::uint64_t offset, std::string_view text) {
    return *transfer::encodeWriteChunkRequest(identifier, offset, Bytes(text.begin(), text.end()));
}

class AppTransferTest : public AppStorageTest {
protected:
    // Reads chunk by chunk as a fetch does; counts the chunks that carried bytes.
    std::string fetch(const std::string& identifier, std::size_t& chunks) {
        std::string content;
        for (chunks = 0;;) {
            const auto answer =
                transfer_.readChunk(*encodeReadChunkRequest(identifier, content.size()));
            EXPECT_EQ(answer.code, 0);
            if (answer.payload.empty()) {
                return content;
            }
            ++chunks;
            content.append(answer.payload.begin(), answer.payload.end());
            if (answer.payload.size() < kChunkSize) {
                return content;
            }
        }
    }
    AppTransfer transfer_{root_};
};

TEST_F(AppTransferTest, ReadsWholeChunksAndAShortLastOne) {
    for (const std::size_t size :
         {std::size_t{0}, std::size_t{kChunkSize}, kChunkSize + std::size_t{1}}) {
        std::string content(size, '\0');
        for (std::size_t i = 0; i < size; ++i) {
            content[i] = static_cast<char>(i * 7 + i / 4096);  // a misplaced chunk shows
        }
        writeFile(root_ / "docs/big.bin", content);
        std::size_t chunks = 0;
        EXPECT_EQ(fetch("docs/big.bin", chunks), content) << size;
        EXPECT_EQ(chunks, (size + kChunkSize - 1) / kChunkSize) << size;
    }
    EXPECT_TRUE(transfer_.readChunk(*encodeReadChunkRequest("docs/a.txt", ~0ULL)).payload.empty());
    EXPECT_EQ(transfer_.readChunk(*encodeReadChunkRequest("docs/a.txt", 1, 3)).payload,
              Bytes({'e', 'l', 'l'}));

    // Refusals carry their status alone.
    const std::vector<std::pair<Bytes, std::uint16_t>> refused = {
        {*encodeReadChunkRequest("docs/none.txt", 0), 1},
        {*encodeReadChunkRequest("../outside/secret.txt", 0), 1},
        {*encodeReadChunkRequest("secret-link", 0), 4},
        {*encodeReadChunkRequest("docs", 0), 8},
        {*encodeReadChunkRequest("docs/a.txt", 0, 0xFFFF'FFFF), 4},  // more than a frame
        {Bytes{1, 2, 3}, 4},
    };
    for (const auto& [body, code] : refused) {
        const auto answer = transfer_.readChunk(body);
        EXPECT_EQ(answer.code, code) << std::string(body.begin(), body.end());
        EXPECT_TRUE(answer.payload.empty());
    }
}

TEST_F(AppTransferTest, WritesStayInvisibleUntilTheCommit) {
    const auto before = contentVersion("docs/a.txt");
    ASSERT_EQ(transfer_.stageWrite(stageBody("docs/a.txt", 5, before)).code, 0);
    ASSERT_EQ(transfer_.stageWrite(stageBody("docs//new.txt", 3, Bytes{})).code, 0);
    EXPECT_EQ(json::decode<RelayWriteChunkResponse>(
                  transfer_.writeChunk(writeBody("docs/a.txt", 0, "HEL")).payload),
              (RelayWriteChunkResponse{3, 5, std::nullopt}));
    EXPECT_EQ(json::decode<RelayWriteChunkResponse>(
                  transfer_.writeChunk(writeBody("./docs/a.txt", 3, "LO!")).payload),
              (RelayWriteChunkResponse{6, 6, std::nullopt}));
    ASSERT_EQ(transfer_.writeChunk(writeBody("docs/new.txt", 0, "new")).code, 0);

    // Neither the old file nor the folder show anything of the staged writes.
    EXPECT_EQ(readFile(root_ / "docs/a.txt"), "hello");
    EXPECT_EQ(contentVersion("docs/a.txt"), before);
    EXPECT_EQ(std::distance(fs::directory_iterator(root_ / "docs"), fs::directory_iterator()), 2);

    const auto committed = transfer_.commitWrite(commitBody("docs/a.txt"));
    ASSERT_EQ(committed.code, 0);
    const auto summary = json::decode<RelayItemSummary>(committed.payload);
    ASSERT_TRUE(summary);
    EXPECT_EQ(readFile(root_ / "docs/a.txt"), "HELLO!");
    EXPECT_EQ(summary->contentVersion, contentVersion("docs/a.txt"));
    EXPECT_NE(summary->contentVersion, before);
    // The replaced content is handed over still open, for its storage to be freed later.
    const auto replaced = transfer_.takeReplaced();
    ASSERT_EQ(replaced.size(), 1u);
    std::string old(5, '\0');
    EXPECT_EQ(::pread(replaced[0].get(), old.data(), old.size(), 0), 5);
    EXPECT_EQ(old, "hello");
    ASSERT_EQ(transfer_.commitWrite(commitBody("docs/new.txt")).code, 0);
    EXPECT_EQ(readFile(root_ / "docs/new.txt"), "new");
    EXPECT_TRUE(transfer_.takeReplaced().empty());
    EXPECT_EQ(std::distance(fs::directory_iterator(root_ / "docs"), fs::directory_iterator()), 3);

    // A commit ends the staged write.
    EXPECT_EQ(transfer_.writeChunk(writeBody("docs/a.txt", 0, "x")).code, 4);
    EXPECT_EQ(transfer_.commitWrite(commitBody("docs/a.txt")).code, 4);

    // The same size and bytes within one clock tick still make a new version.
    const auto current = contentVersion("docs/a.txt");
    ASSERT_EQ(transfer_.stageWrite(stageBody("docs/a.txt", 6)).code, 0);
    ASSERT_EQ(transfer_.writeChunk(writeBody("docs/a.txt", 0, "HELLO!")).code, 0);
    ASSERT_EQ(transfer_.commitWrite(commitBody("docs/a.txt")).code, 0);
    EXPECT_NE(contentVersion("docs/a.txt"), current);
}

TEST_F(AppTransferTest, StaleOrMisplacedWritesAreRejectedBeforeAnyChunk) {
    const auto seen = contentVersion("docs/a.txt");
    writeFile(root_ / "docs/a.txt", "changed by hand");
    const std::vector<std::pair<Bytes, std::int64_t>> cases = {
        {stageBody("docs/a.txt", 5, seen), 6},
        {stageBody("docs/a.txt", 5, Bytes{}), 6},  // expects no file
        {stageBody("docs/none.txt", 5, seen), 6},  // expects a file
        {stageBody("docs", 5), 8},
        {stageBody("../outside/secret.txt", 5), 1},
        {stageBody("secret-link", 5), 4},
        {commitBody("docs/a.txt"), 4},  // not a stage request
    };
    for (const auto& [body, status] : cases) {
        const auto answer = transfer_.stageWrite(body);
        EXPECT_EQ(answer.code, status) << std::string(body.begin(), body.end());
        EXPECT_EQ(json::decode<transfer::FileIODeviceRejection>(answer.payload),
                  transfer::FileIODeviceRejection{status});
        EXPECT_EQ(transfer_.writeChunk(writeBody("docs/a.txt", 0, "x")).code, 4);
    }
    EXPECT_EQ(readFile(root_ / "docs/a.txt"), "changed by hand");
    EXPECT_EQ(readFile(outside_ / "secret.txt"), "outside");
}

// The app as a connection sees it: a client engine over a socket pair, the app on an
// io_context thread of its own.
class FramedTransferTest : public AppTransferTest {
protected:
    void SetUp() override {
        installTransferHandlers(app_.handlers(), root_);
        int fds[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        app_.listener()(std::make_shared<AppSocket>(io_, asio::local::stream_protocol(), fds[0]),
                        AppConnectionInfo{});
        transport_ = std::make_shared<tunnel::SocketTunnelTransport>(io_.get_executor(), fds[1]);
        thread_ = std::thread([this] { io_.run(); });
        tunnel::TunnelBinding binding;
        binding.transport = transport_;
        skiff::testing::runSync(io_.get_executor(), engine_->bind(std::move(binding)));
    }
    void TearDown() override {
        skiff::testing::runSync(io_.get_executor(), engine_->unbind());
        skiff::testing::runSync(io_.get_executor(), transport_->close());
        work_.reset();
        io_.stop();
        thread_.join();
    }

    std::uint16_t request(std::uint16_t code, Bytes body) {
        return skiff::testing::runSync(io_.get_executor(), engine_->request(code, std::move(body)))
            .code;
    }
    std::uint16_t readChunk() {
        return request(kReadChunkRequestCode, *encodeReadChunkRequest("docs/a.txt", 0));
    }
    // On the app's thread, where the control server runs commands.
    void control(const std::string& line) {
        const auto command = std::get<AppCommand>(parseAppCommand(line));
        auto done = asio::post(io_, asio::use_future([&] { return app_.execute(command).ok; }));
        ASSERT_TRUE(skiff::testing::readyInTime(done));
        EXPECT_TRUE(done.get()) << line;
    }

    asio::io_context io_;
    asio::executor_work_guard<asio::io_context::executor_type> work_{io_.get_executor()};
    CompanionApp app_{io_.get_executor(), [](const std::string&) {}};
    std::shared_ptr<tunnel::SocketTunnelTransport> transport_;
    std::shared_ptr<tunnel::TunnelEngine> engine_ =
        std::make_shared<tunnel::TunnelEngine>(io_.get_executor());
    std::thread thread_;
};

TEST_F(FramedTransferTest, ChunkFaultsHitTheNthChunkRequestOnly) {
    EXPECT_EQ(readChunk(), 0);  // before the switch: not counted
    control("fault fail-chunk 2");
    EXPECT_EQ(request(kStageWriteRequestCode, stageBody("docs/a.txt", 1)), 0);  // no chunk
    EXPECT_EQ(readChunk(), 0);
    EXPECT_EQ(request(kWriteChunkRequestCode, writeBody("docs/a.txt", 0, "x")), 5);
    EXPECT_EQ(readChunk(), 0);  // only the one

    for (const char* off : {"fault fail-chunk off", "fault clear"}) {
        control("fault fail-chunk 1");
        control(off);
        EXPECT_EQ(readChunk(), 0) << off;
    }
    // Dropping closes the connection on the counted request.
    control("fault drop-at-chunk 2");
    EXPECT_EQ(readChunk(), 0);
    EXPECT_EQ(request(kStageWriteRequestCode, stageBody("docs/a.txt", 1)), 0);
    try {
        readChunk();
        ADD_FAILURE() << "answered";
    } catch (const tunnel::TunnelEngineError& error) {
        EXPECT_EQ(error.errorCase(), tunnel::TunnelEngineError::Case::disconnected);
    }
}

}  // namespace
}  // namespace skiff::sim
