#include "sim/app_transfer.hpp"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <asio.hpp>
#include <filesystem>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "common/byte_text.hpp"
#include "common/run_sync.hpp"
#include "relay/item_requests.hpp"
#include "relay/volume_records.hpp"
#include "sim/app_items.hpp"
#include "sim/app_link.hpp"
#include "sim/app_storage_fixture.hpp"
#include "sim/app_volume.hpp"
#include "sim/companion_app.hpp"
#include "transfer/file_io_records.hpp"
#include "tunnel/socket_tunnel_transport.hpp"

namespace skiff::sim {
namespace {

namespace fs = std::filesystem;
using relay::RelayItemSummary;
using skiff::test::readFile;
using skiff::test::writeFile;
using skiff::testing::bytesOf;
using transfer::encodeReadChunkRequest;
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
    AppTransfer transfer_{root_};
};

TEST_F(AppTransferTest, ChunkReadsAnswerTheBytesThereAndRefusalsCarryTheirStatusAlone) {
    const std::pair<Bytes, std::string> reads[] = {
        {*encodeReadChunkRequest("docs/a.txt", 1, 3), "ell"},
        {*encodeReadChunkRequest("docs/a.txt", 3), "lo"},
        {*encodeReadChunkRequest("docs/a.txt", ~0ULL), ""},
    };
    for (const auto& [body, bytes] : reads) {
        const auto answer = transfer_.readChunk(body);
        EXPECT_EQ(answer.code, 0);
        EXPECT_EQ(std::string(answer.payload.begin(), answer.payload.end()), bytes);
    }
    const std::vector<std::pair<Bytes, std::uint16_t>> refused = {
        {*encodeReadChunkRequest("docs/none.txt", 0), 1},
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
                  transfer_.writeChunk(writeBody("./docs/a.txt", 3, "LO!")).payload),
              (RelayWriteChunkResponse{6, 6, std::nullopt}));
    ASSERT_EQ(transfer_.writeChunk(writeBody("docs/new.txt", 0, "new")).code, 0);
    EXPECT_EQ(readFile(root_ / "docs/a.txt"), "hello");
    EXPECT_EQ(std::distance(fs::directory_iterator(root_ / "docs"), fs::directory_iterator()), 2);

    const auto summary =
        json::decode<RelayItemSummary>(transfer_.commitWrite(commitBody("docs/a.txt")).payload);
    ASSERT_TRUE(summary);
    EXPECT_EQ(readFile(root_ / "docs/a.txt"), "helLO!");
    EXPECT_EQ(summary->contentVersion, contentVersion("docs/a.txt"));
    // The replaced content is handed over still open, for its storage to be freed later.
    const auto replaced = transfer_.takeReplaced();
    ASSERT_EQ(replaced.size(), 1u);
    std::string old(5, '\0');
    EXPECT_EQ(::pread(replaced[0].get(), old.data(), old.size(), 0), 5);
    EXPECT_EQ(old, "hello");
    ASSERT_EQ(transfer_.commitWrite(commitBody("docs/new.txt")).code, 0);
    EXPECT_EQ(readFile(root_ / "docs/new.txt"), "new");
    // A commit ends the staged write.
    EXPECT_EQ(transfer_.commitWrite(commitBody("docs/a.txt")).code, 4);

    // The same size and bytes within one clock tick still make a new version.
    const auto current = contentVersion("docs/a.txt");
    ASSERT_EQ(transfer_.stageWrite(stageBody("docs/a.txt", 6)).code, 0);
    ASSERT_EQ(transfer_.commitWrite(commitBody("docs/a.txt")).code, 0);
    EXPECT_NE(contentVersion("docs/a.txt"), current);
}

TEST_F(AppTransferTest, AStageStartsFromTheItemsContentSoUnsentRangesKeepThePhonesBytes) {
    struct Case {
        const char* id;
        std::uint64_t size;
        std::uint64_t offset;
        const char* chunk;  // nullptr: none sent
        std::string after;
    };
    const Case cases[] = {
        {"docs/a.txt", 5, 1, "EL", "hELlo"},
        {"docs/a.txt", 3, 0, nullptr, "hel"},
        {"docs/a.txt", 8, 6, "!", std::string("hello\0!\0", 8)},
        {"docs/new.txt", 4, 2, "ab", std::string("\0\0ab", 4)},  // a new item starts empty
    };
    for (const auto& [id, size, offset, chunk, after] : cases) {
        populate();
        ASSERT_EQ(transfer_.stageWrite(stageBody(id, size, contentVersion(id))).code, 0) << after;
        if (chunk != nullptr) {
            ASSERT_EQ(transfer_.writeChunk(writeBody(id, offset, chunk)).code, 0) << after;
        }
        ASSERT_EQ(transfer_.commitWrite(commitBody(id)).code, 0) << after;
        EXPECT_EQ(readFile(root_ / id), after);
    }
}

TEST_F(AppTransferTest, StaleOrMisplacedWritesAreRejectedBeforeAnyChunk) {
    const auto seen = contentVersion("docs/a.txt");
    writeFile(root_ / "docs/a.txt", "changed by hand");
    const std::vector<std::pair<Bytes, std::int64_t>> cases = {
        {stageBody("docs/a.txt", 5, seen), 6},
        {stageBody("docs/a.txt", 5, Bytes{}), 6},  // expects no file
        {stageBody("docs/none.txt", 5, seen), 6},  // expects a file
        {stageBody("secret-link", 5), 4},
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
        installTransferHandlers(app_, root_);
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

// Holds the request back until the timer is cancelled.
asio::awaitable<tunnel::TunnelMessage> afterGate(std::shared_ptr<asio::steady_timer> gate,
                                                 AppRequestHandler inner, Bytes body) {
    std::error_code cancelled;
    co_await gate->async_wait(asio::redirect_error(asio::use_awaitable, cancelled));
    co_return co_await inner(std::move(body));
}

TEST_F(FramedTransferTest, RequestsOfOneItemAreHandledInArrivalOrderWhileOthersGoOn) {
    installLookupHandler(app_.handlers(), root_);
    // The stage is held back: without the order, its chunks and commit would overtake it.
    auto gate = std::make_shared<asio::steady_timer>(io_, std::chrono::hours(1));
    auto& stage = app_.handlers()[kStageWriteRequestCode];
    stage = [gate, inner = stage](Bytes body) { return afterGate(gate, inner, std::move(body)); };

    // A new item: a commit that replaced content would leave a release behind the test.
    const std::pair<std::uint16_t, Bytes> pipelined[] = {
        {kStageWriteRequestCode, stageBody("docs/new.txt", 6, Bytes{})},
        {kWriteChunkRequestCode, writeBody("docs/new.txt", 0, "HE")},
        {kWriteChunkRequestCode, writeBody("docs/new.txt", 4, "O!")},
        {kCommitWriteRequestCode, commitBody("docs/new.txt")},
    };
    std::vector<std::future<tunnel::TunnelMessage>> answers;
    for (const auto& [code, body] : pipelined) {
        answers.push_back(asio::co_spawn(io_, engine_->request(code, body), asio::use_future));
    }
    // Another item is answered meanwhile; once it is, every request above has arrived.
    const std::string lookup = R"({"identifier":"file.txt","source":"fsGetAttributes"})";
    EXPECT_EQ(request(kLookupRequestCode, Bytes(lookup.begin(), lookup.end())), 0);
    asio::post(io_, [gate] { gate->cancel(); });
    for (auto& answer : answers) {
        ASSERT_TRUE(skiff::testing::readyInTime(answer));
        EXPECT_EQ(answer.get().code, 0);
    }
    EXPECT_EQ(readFile(root_ / "docs/new.txt"), std::string("HE\0\0O!", 6));
}

TEST_F(FramedTransferTest, AnswerFaultsLieAsTheirSwitchSays) {
    installItemHandlers(app_.handlers(), root_);
    installVolumeHandlers(app_.handlers(), root_);
    const auto list = [](const char* id, std::optional<std::string> cursor = std::nullopt) {
        return std::pair<std::uint16_t, Bytes>{3,
                                               *json::encode(relay::RelayListRequest{id, cursor})};
    };
    const auto ask = [&](const std::pair<std::uint16_t, Bytes>& request) {
        const auto answer = skiff::testing::runSync(
            io_.get_executor(), engine_->request(request.first, request.second));
        return std::string(answer.payload.begin(), answer.payload.end());
    };
    // Read once first: the read's access time then stays out of the comparisons below.
    ask({kReadChunkRequestCode, *encodeReadChunkRequest("docs/a.txt", 0)});
    const auto truthful = ask(list("docs"));
    struct Case {
        const char* fault;
        std::pair<std::uint16_t, Bytes> request;
        std::string_view shows;  // a read's whole answer, a listing's part
    };
    const Case cases[] = {
        {"short-chunk", {kReadChunkRequestCode, *encodeReadChunkRequest("docs/a.txt", 0)}, "he"},
        {"short-chunk",
         {10, *relay::encodeRangeReadRequest({"docs/a.txt", 1, 4, contentVersion("docs/a.txt")})},
         "el"},
        {"endless-list", list("empty"), R"("nextCursor":"AA==")"},
        {"endless-list", list("empty", "AA=="), R"("nextCursor":"AA==")"},
        {"bad-names", list("docs"), R"("identifier":"docs/","filename":"")"},
        {"bad-names", list("docs"), R"("identifier":"docs/..","filename":"..")"},
        {"bad-names", list("docs"), R"("identifier":"docs/a/b","filename":"a/b")"},
        {"bad-names", list("docs"), R"("filename":"n\u0000ul")"},
        {"foreign-entry", list("docs"), R"("identifier":"other/foreign")"},
        {"non-utf8-name", list("docs"), "\"filename\":\"bad\xff\xfe\""},
    };
    for (const auto& [fault, request, shows] : cases) {
        control(std::string("fault ") + fault + " on");
        const auto text = ask(request);
        EXPECT_TRUE(request.first == 3 ? text.find(shows) != std::string::npos : text == shows)
            << fault << ": " << text;
        control(std::string("fault ") + fault + " off");
        EXPECT_EQ(ask(list("docs")), truthful) << fault;
    }
}

TEST(LinkPacer, BooksEachDirectionsBytesOneAfterAnotherAtTheRate) {
    LinkPacer pacer(35'000'000);
    const auto first = pacer.book(35'000'000);
    EXPECT_EQ(pacer.book(3'500'000) - first, std::chrono::milliseconds(100));
}

}  // namespace
}  // namespace skiff::sim
