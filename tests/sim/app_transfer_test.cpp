#include "sim/app_transfer.hpp"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <asio.hpp>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "common/run_sync.hpp"
#include "relay/relay_schema.hpp"
#include "sim/app_lookup.hpp"
#include "sim/companion_app.hpp"
#include "support/child_process.hpp"
#include "transfer/file_io_records.hpp"
#include "tunnel/socket_tunnel_transport.hpp"
#include "tunnel/tunnel_errors.hpp"

namespace skiff::sim {
namespace {

namespace fs = std::filesystem;
using relay::RelayItemSummary;
using transfer::FileIODeviceRejection;
using transfer::kChunkSize;
using transfer::RelayWriteChunkResponse;

Bytes bytesOf(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

// Bytes that differ from one position to the next, so a misplaced chunk shows.
std::string pattern(std::size_t size) {
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        text[i] = static_cast<char>(i * 7 + i / 4096);
    }
    return text;
}

Bytes stageBody(const std::string& identifier, std::uint64_t size,
                std::optional<Bytes> expected = std::nullopt) {
    return *json::encode(
        transfer::RelayTruncateWriteRequest{identifier, size, std::move(expected)});
}
Bytes commitBody(const std::string& identifier) {
    return *json::encode(transfer::RelayCommitWriteRequest{identifier});
}
Bytes writeBody(const std::string& identifier, std::uint64_t offset, const std::string& text) {
    return *transfer::encodeWriteChunkRequest(identifier, offset, bytesOf(text));
}

class AppTransferTest : public ::testing::Test {
protected:
    AppTransferTest() : root_(base_.path() + "/storage") {
        fs::create_directories(root_ / "docs");
        write(root_ / "docs/a.txt", "hello");
        write(fs::path(base_.path()) / "secret.txt", "outside");
    }

    static void write(const fs::path& path, const std::string& text) {
        std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    }
    static std::string read(const fs::path& path) {
        std::ifstream in(path, std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

    // Reads the item chunk by chunk as a fetch does; counts the chunks that carried bytes.
    std::string fetch(const std::string& identifier, std::size_t& chunks) {
        std::string content;
        chunks = 0;
        for (;;) {
            const auto answer =
                transfer_.readChunk(*transfer::encodeReadChunkRequest(identifier, content.size()));
            EXPECT_EQ(answer.code, 0) << identifier;
            if (answer.code != 0 || answer.payload.empty()) {
                return content;
            }
            ++chunks;
            content.append(answer.payload.begin(), answer.payload.end());
            if (answer.payload.size() < kChunkSize) {
                return content;
            }
        }
    }

    RelayItemSummary lookUp(const std::string& identifier) {
        const auto body = *json::encode(
            relay::RelayLookupRequest{identifier, relay::RelayLookupSource::fsGetAttributes});
        const auto answer = lookUpItem(root_, body);
        EXPECT_EQ(answer.code, 0) << identifier;
        return json::decode<RelayItemSummary>(answer.payload).value_or(RelayItemSummary{});
    }

    static std::optional<std::int64_t> rejectionStatus(const tunnel::TunnelMessage& answer) {
        const auto rejection = json::decode<FileIODeviceRejection>(answer.payload);
        return rejection ? std::optional(rejection->status) : std::nullopt;
    }

    test::TempDir base_;
    fs::path root_;
    AppTransfer transfer_{root_};
};

TEST_F(AppTransferTest, ReadsAFileInWholeChunksAndAShortLastOne) {
    struct Case {
        std::size_t size;
        std::size_t chunks;
    };
    for (const Case c : {Case{0, 0}, Case{1, 1}, Case{kChunkSize, 1}, Case{kChunkSize + 1, 2}}) {
        SCOPED_TRACE(c.size);
        const std::string content = pattern(c.size);
        write(root_ / "docs/big.bin", content);
        std::size_t chunks = 0;
        EXPECT_EQ(fetch("docs/big.bin", chunks), content);
        EXPECT_EQ(chunks, c.chunks);
    }
    // Past the end: nothing; a smaller request gets what it asked for.
    EXPECT_TRUE(
        transfer_.readChunk(*transfer::encodeReadChunkRequest("docs/a.txt", 6)).payload.empty());
    EXPECT_TRUE(transfer_.readChunk(*transfer::encodeReadChunkRequest("docs/a.txt", ~0ULL))
                    .payload.empty());
    EXPECT_EQ(transfer_.readChunk(*transfer::encodeReadChunkRequest("docs/a.txt", 1, 3)).payload,
              bytesOf("ell"));
}

TEST_F(AppTransferTest, RefusedReadsAnswerTheirStatusAlone) {
    fs::create_symlink(fs::path(base_.path()) / "secret.txt", root_ / "secret-link");
    struct Case {
        Bytes body;
        std::uint16_t code;
    };
    const std::vector<Case> cases = {
        {*transfer::encodeReadChunkRequest("docs/none.txt", 0), 1},
        {*transfer::encodeReadChunkRequest("../secret.txt", 0), 1},
        {*transfer::encodeReadChunkRequest("secret-link", 0), 4},
        {*transfer::encodeReadChunkRequest("docs", 0), 8},
        {*transfer::encodeReadChunkRequest("", 0), 8},
        {*transfer::encodeReadChunkRequest("docs/a.txt", 0, 0xFFFF'FFFF), 4},
        {bytesOf("docs/a.txt"), 4},
    };
    for (const auto& c : cases) {
        const auto answer = transfer_.readChunk(c.body);
        EXPECT_EQ(answer.code, c.code) << std::string(c.body.begin(), c.body.end());
        EXPECT_TRUE(answer.payload.empty());
    }
}

TEST_F(AppTransferTest, WritesStayInvisibleUntilTheCommit) {
    const auto before = lookUp("docs/a.txt");
    ASSERT_EQ(transfer_.stageWrite(stageBody("docs/a.txt", 6, before.contentVersion)).code, 0);
    ASSERT_EQ(transfer_.stageWrite(stageBody("docs//new.txt", 3, Bytes{})).code, 0);

    const auto first = transfer_.writeChunk(writeBody("docs/a.txt", 0, "HEL"));
    ASSERT_EQ(first.code, 0);
    EXPECT_EQ(json::decode<RelayWriteChunkResponse>(first.payload),
              (RelayWriteChunkResponse{3, 6, std::nullopt}));
    const auto second = transfer_.writeChunk(writeBody("./docs/a.txt", 3, "LO!"));
    EXPECT_EQ(json::decode<RelayWriteChunkResponse>(second.payload),
              (RelayWriteChunkResponse{6, 6, std::nullopt}));
    ASSERT_EQ(transfer_.writeChunk(writeBody("docs/new.txt", 0, "new")).code, 0);

    // Neither the old file nor the folder show anything of the staged writes.
    EXPECT_EQ(read(root_ / "docs/a.txt"), "hello");
    EXPECT_EQ(lookUp("docs/a.txt").contentVersion, before.contentVersion);
    EXPECT_EQ(std::distance(fs::directory_iterator(root_ / "docs"), fs::directory_iterator()), 1);

    const auto committed = transfer_.commitWrite(commitBody("docs/a.txt"));
    ASSERT_EQ(committed.code, 0);
    const auto summary = json::decode<RelayItemSummary>(committed.payload);
    ASSERT_TRUE(summary);
    EXPECT_EQ(read(root_ / "docs/a.txt"), "HELLO!");
    EXPECT_EQ(summary->size, 6u);
    EXPECT_EQ(summary->contentVersion, lookUp("docs/a.txt").contentVersion);
    EXPECT_NE(summary->contentVersion, before.contentVersion);

    ASSERT_EQ(transfer_.commitWrite(commitBody("docs/new.txt")).code, 0);
    EXPECT_EQ(read(root_ / "docs/new.txt"), "new");
    EXPECT_EQ(std::distance(fs::directory_iterator(root_ / "docs"), fs::directory_iterator()), 2);

    // A commit ends the staged write: nothing more goes to it.
    EXPECT_EQ(transfer_.writeChunk(writeBody("docs/a.txt", 0, "x")).code, 4);
    EXPECT_EQ(transfer_.commitWrite(commitBody("docs/a.txt")).code, 4);
}

TEST_F(AppTransferTest, ARewriteOfTheSameSizeGetsANewVersion) {
    // Same size, same content, within one clock tick: only the file changed.
    const auto before = lookUp("docs/a.txt").contentVersion;
    ASSERT_EQ(transfer_.stageWrite(stageBody("docs/a.txt", 5)).code, 0);
    ASSERT_EQ(transfer_.writeChunk(writeBody("docs/a.txt", 0, "hello")).code, 0);
    ASSERT_EQ(transfer_.commitWrite(commitBody("docs/a.txt")).code, 0);
    EXPECT_NE(lookUp("docs/a.txt").contentVersion, before);
}

TEST_F(AppTransferTest, StaleOrMisplacedWritesAreRejectedBeforeAnyChunk) {
    const auto seen = lookUp("docs/a.txt").contentVersion;
    write(root_ / "docs/a.txt", "changed by hand");  // a change on the phone meanwhile
    fs::create_symlink(fs::path(base_.path()) / "secret.txt", root_ / "secret-link");
    struct Case {
        std::string what;
        Bytes body;
        std::int64_t status;
    };
    const std::vector<Case> cases = {
        {"stale version", stageBody("docs/a.txt", 5, seen), 6},
        {"expects no file", stageBody("docs/a.txt", 5, Bytes{}), 6},
        {"expects a file", stageBody("docs/none.txt", 5, seen), 6},
        {"folder", stageBody("docs", 5), 8},
        {"root", stageBody("", 5), 8},
        {"outside", stageBody("../secret.txt", 5), 1},
        {"missing folder", stageBody("nowhere/a.txt", 5), 1},
        {"link", stageBody("secret-link", 5), 4},
        {"not a request", bytesOf(R"({"identifier":"docs/a.txt"})"), 4},
    };
    for (const auto& c : cases) {
        const auto answer = transfer_.stageWrite(c.body);
        EXPECT_EQ(answer.code, c.status) << c.what;
        EXPECT_EQ(rejectionStatus(answer), c.status) << c.what;
        EXPECT_EQ(transfer_.writeChunk(writeBody("docs/a.txt", 0, "x")).code, 4) << c.what;
    }
    EXPECT_EQ(read(root_ / "docs/a.txt"), "changed by hand");
    EXPECT_EQ(read(fs::path(base_.path()) / "secret.txt"), "outside");
}

// The app as a connection sees it: an engine in the client role over a socket pair, with
// the app on an io_context thread of its own.
class FramedTransferTest : public AppTransferTest {
protected:
    void SetUp() override {
        installTransferHandlers(app_.handlers(), root_);
        int fds[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        auto socket = std::make_shared<AppSocket>(io_, asio::local::stream_protocol(), fds[0]);
        app_.listener()(socket, AppConnectionInfo{});
        transport_ = std::make_shared<tunnel::SocketTunnelTransport>(io_.get_executor(), fds[1]);
        engine_ = std::make_shared<tunnel::TunnelEngine>(io_.get_executor());
        thread_ = std::thread([this] { io_.run(); });
        tunnel::TunnelBinding binding;
        binding.transport = transport_;
        run(engine_->bind(std::move(binding)));
    }
    void TearDown() override {
        run(engine_->unbind());
        run(transport_->close());
        work_.reset();
        io_.stop();
        thread_.join();
    }

    template <class T>
    T run(asio::awaitable<T> task) {
        return skiff::testing::runSync(io_.get_executor(), std::move(task));
    }
    std::uint16_t request(std::uint16_t code, Bytes body) {
        return run(engine_->request(code, std::move(body))).code;
    }
    std::uint16_t readChunk() {
        return request(kReadChunkRequestCode, *transfer::encodeReadChunkRequest("docs/a.txt", 0));
    }
    // Control commands run on the app's thread, as the control server runs them.
    void control(const std::string& line) {
        const auto parsed = parseAppCommand(line);
        ASSERT_TRUE(std::holds_alternative<AppCommand>(parsed)) << line;
        const auto command = std::get<AppCommand>(parsed);
        auto done = asio::post(io_, asio::use_future([&] { return app_.execute(command); }));
        ASSERT_TRUE(skiff::testing::readyInTime(done));
        EXPECT_TRUE(done.get().ok) << line;
    }

    asio::io_context io_;
    asio::executor_work_guard<asio::io_context::executor_type> work_{io_.get_executor()};
    CompanionApp app_{io_.get_executor(), [](const std::string&) {}};
    std::shared_ptr<tunnel::SocketTunnelTransport> transport_;
    std::shared_ptr<tunnel::TunnelEngine> engine_;
    std::thread thread_;
};

TEST_F(FramedTransferTest, FailChunkAnswersTheNthChunkRequestWithIoError) {
    EXPECT_EQ(readChunk(), 0);  // before the switch: not counted
    control("fault fail-chunk 2");
    EXPECT_EQ(request(kStageWriteRequestCode, stageBody("docs/a.txt", 1)), 0);  // no chunk
    EXPECT_EQ(readChunk(), 0);
    EXPECT_EQ(request(kWriteChunkRequestCode, writeBody("docs/a.txt", 0, "x")), 5);
    EXPECT_EQ(readChunk(), 0);  // only the one

    control("fault fail-chunk 1");
    control("fault fail-chunk off");
    EXPECT_EQ(readChunk(), 0);
    control("fault fail-chunk 1");
    control("fault clear");
    EXPECT_EQ(readChunk(), 0);
}

TEST_F(FramedTransferTest, DropAtChunkClosesTheConnectionOnTheNthChunkRequest) {
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
