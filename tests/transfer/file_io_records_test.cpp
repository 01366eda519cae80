#include "transfer/file_io_records.hpp"

#include <gtest/gtest.h>

#include <string>

#include "common/byte_text.hpp"

namespace skiff::transfer {
namespace {

using json::decode;
using json::encode;
using testing::bytesOf;
using testing::textOf;

TEST(FileIORecords, KeysInFieldOrderUpperCaseUuidAndEmptyVersionsStillSent) {
    const auto session = *Uuid::parse("0f8fad5b-d9cb-469f-a165-70867728950e");
    const FileIOBeginWriteRequest write{"docs/a.txt", session,   {},
                                        "tok",        "src.bin", 18446744073709551615ULL};
    const auto body = encode(write);
    ASSERT_TRUE(body);
    EXPECT_EQ(textOf(*body),
              R"({"identifier":"docs/a.txt","sessionID":"0F8FAD5B-D9CB-469F-A165-70867728950E",)"
              R"("expectedContentVersion":"","token":"tok","sourceFileName":"src.bin",)"
              R"("byteCount":18446744073709551615})");
    EXPECT_EQ(decode<FileIOBeginWriteRequest>(*body), write);

    EXPECT_EQ(textOf(*encode(RelayTruncateWriteRequest{"a", 5, std::nullopt})),
              R"({"identifier":"a","size":5})");
    EXPECT_EQ(textOf(*encode(RelayTruncateWriteRequest{"a", 5, Bytes{}})),
              R"({"identifier":"a","size":5,"expectedContentVersion":""})");
    EXPECT_EQ(decode<RelayWriteChunkResponse>(bytesOf(R"({"nextOffset":8,"currentSize":9})")),
              (RelayWriteChunkResponse{8, 9, std::nullopt}));
}

// The field types are what the checks rest on; the JSON coder's own strictness is tested
// with it.
TEST(FileIORecords, FieldTypesAreEnforced) {
    const std::string write =
        R"({"identifier":"a","sessionID":"0F8FAD5B-D9CB-469F-A165-70867728950E",)"
        R"("expectedContentVersion":"AQID","token":"t","sourceFileName":"f","byteCount":)";
    ASSERT_TRUE(decode<FileIOBeginWriteRequest>(bytesOf(write + "1}")));
    EXPECT_FALSE(decode<FileIOBeginWriteRequest>(bytesOf(write + "-1}")));
    EXPECT_EQ(decode<FileIODeviceRejection>(bytesOf(R"({"status":-7})")),
              FileIODeviceRejection{-7});
    EXPECT_FALSE(decode<FileIODeviceRejection>(bytesOf(R"({"status":"6"})")));
    // A summary never passes for a rejection: that is how the two answers are told apart.
    EXPECT_FALSE(decode<FileIODeviceRejection>(*encode(relay::RelayItemSummary{})));
}

TEST(ChunkBodies, LittleEndianLayoutWithoutPadding) {
    const auto read = encodeReadChunkRequest("ab", 0x0102030405060708ULL);
    ASSERT_TRUE(read);
    EXPECT_EQ(*read, (Bytes{2, 0, 'a', 'b', 8, 7, 6, 5, 4, 3, 2, 1, 0, 0, 0x40, 0}));
    EXPECT_EQ(decodeReadChunkRequest(*read),
              (ReadChunkRequest{"ab", 0x0102030405060708ULL, kChunkSize}));

    const Bytes chunk{9, 8, 7};
    const auto write = encodeWriteChunkRequest("ab", 5, chunk);
    ASSERT_TRUE(write);
    EXPECT_EQ(*write, (Bytes{2, 0, 'a', 'b', 5, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, 9, 8, 7}));
    const auto decoded = decodeWriteChunkRequest(*write);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(*decoded, (WriteChunkRequest{"ab", 5, chunk}));
    EXPECT_EQ(decoded->bytes.data(), write->data() + 16);  // a view, not a copy
}

TEST(ChunkBodies, LimitsAndExactLengths) {
    const std::string longest(65'535, 'x');
    ASSERT_TRUE(encodeReadChunkRequest(longest, 0));
    EXPECT_EQ(decodeReadChunkRequest(*encodeReadChunkRequest(longest, 0))->identifier, longest);
    EXPECT_FALSE(encodeReadChunkRequest(longest + "x", 0));
    EXPECT_FALSE(encodeWriteChunkRequest(longest + "x", 0, Bytes{1}));
    EXPECT_FALSE(encodeReadChunkRequest("\xff", 0));
    EXPECT_TRUE(encodeWriteChunkHeader("a", 0, kMaxWriteChunkBytes));
    EXPECT_FALSE(encodeWriteChunkHeader("a", 0, kMaxWriteChunkBytes + 1));

    const Bytes read = *encodeReadChunkRequest("ab", 1, 2);
    const Bytes write = *encodeWriteChunkRequest("ab", 1, Bytes{1, 2, 3});
    for (std::size_t n = 0; n < read.size(); ++n) {
        EXPECT_FALSE(decodeReadChunkRequest(std::span(read).first(n))) << n;
    }
    for (std::size_t n = 0; n < write.size(); ++n) {
        EXPECT_FALSE(decodeWriteChunkRequest(std::span(write).first(n))) << n;
    }
    struct Edit {
        std::size_t at;
        std::uint8_t value;
    };
    // An identifier length beyond the body, an identifier that is not UTF-8, a chunk
    // length that disagrees with the bytes that follow, and a trailing byte.
    for (const Edit edit : {Edit{0, 0xFF}, Edit{2, 0xC3}, Edit{12, 4}, Edit{19, 0}}) {
        Bytes body = write;
        body.resize(std::max(body.size(), edit.at + 1));
        body[edit.at] = edit.value;
        EXPECT_FALSE(decodeWriteChunkRequest(body)) << edit.at;
    }
    Bytes trailing = read;
    trailing.push_back(0);
    EXPECT_FALSE(decodeReadChunkRequest(trailing));
}

}  // namespace
}  // namespace skiff::transfer
