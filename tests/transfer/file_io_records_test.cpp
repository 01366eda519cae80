#include "transfer/file_io_records.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace skiff::transfer {
namespace {

using json::decode;
using json::encode;

Bytes bytesOf(std::string_view text) {
    return Bytes(text.begin(), text.end());
}
std::string textOf(const Bytes& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

const Uuid kSession = *Uuid::parse("0f8fad5b-d9cb-469f-a165-70867728950e");

TEST(FileIORecords, RequestsCodeWithExactKeysAndRoundTrip) {
    const FileIOBeginWriteRequest write{"docs/a.txt", kSession,  {},
                                        "tok",        "src.bin", 18446744073709551615ULL};
    const auto body = encode(write);
    ASSERT_TRUE(body);
    // A zero-byte version is still sent, as "".
    EXPECT_EQ(textOf(*body),
              R"({"identifier":"docs/a.txt","sessionID":"0F8FAD5B-D9CB-469F-A165-70867728950E",)"
              R"("expectedContentVersion":"","token":"tok","sourceFileName":"src.bin",)"
              R"("byteCount":18446744073709551615})");
    EXPECT_EQ(decode<FileIOBeginWriteRequest>(*body), write);

    const SharedFileDescriptor descriptor{"tok", "transfer_X.bin", 7, {1, 2, 3}, {0xFF}};
    EXPECT_EQ(textOf(*encode(descriptor)),
              R"({"token":"tok","fileName":"transfer_X.bin","byteCount":7,)"
              R"("contentVersion":"AQID","metadataVersion":"/w=="})");
    EXPECT_EQ(decode<SharedFileDescriptor>(*encode(descriptor)), descriptor);

    // Lower-case UUID text is read too.
    EXPECT_EQ(decode<FileIOBeginReadRequest>(bytesOf(
                  R"({"identifier":"a","sessionID":"0f8fad5b-d9cb-469f-a165-70867728950e"})")),
              (FileIOBeginReadRequest{"a", kSession}));
}

TEST(FileIORecords, OptionalFieldsAreLeftOutWhenAbsent) {
    EXPECT_EQ(textOf(*encode(RelayTruncateWriteRequest{"a", 5, std::nullopt})),
              R"({"identifier":"a","size":5})");
    EXPECT_EQ(textOf(*encode(RelayTruncateWriteRequest{"a", 5, Bytes{}})),
              R"({"identifier":"a","size":5,"expectedContentVersion":""})");

    const auto bare =
        decode<RelayWriteChunkResponse>(bytesOf(R"({"nextOffset":8,"currentSize":9})"));
    ASSERT_TRUE(bare);
    EXPECT_EQ(*bare, (RelayWriteChunkResponse{8, 9, std::nullopt}));
    relay::RelayItemSummary summary;
    summary.identifier = "a";
    summary.contentVersion = Bytes{4};
    const RelayWriteChunkResponse full{8, 9, summary};
    EXPECT_EQ(decode<RelayWriteChunkResponse>(*encode(full)), full);
}

TEST(FileIORecords, MalformedBodiesFailToDecode) {
    const std::string session = R"("sessionID":"0F8FAD5B-D9CB-469F-A165-70867728950E")";
    const std::string write = R"({"identifier":"a",)" + session +
                              R"(,"expectedContentVersion":"AQID","token":"t",)"
                              R"("sourceFileName":"f",)";
    ASSERT_TRUE(decode<FileIOBeginWriteRequest>(bytesOf(write + R"("byteCount":1})")));
    for (const std::string& bad :
         {write + R"("byteCount":-1})", write + R"("byteCount":18446744073709551616})",
          write + R"("byteCount":1.5})", write + R"("byteCount":"1"})", write + "}"}) {
        EXPECT_FALSE(decode<FileIOBeginWriteRequest>(bytesOf(bad))) << bad;
    }
    for (const char* bad :
         {R"({"identifier":"a","sessionID":"0F8FAD5B-D9CB-469F-A165-70867728950"})",
          R"({"identifier":"a","sessionID":"0F8FAD5B-D9CB-469F-A165-70867728950EE"})",
          R"({"identifier":"a","sessionID":"0F8FAD5B+D9CB-469F-A165-70867728950E"})",
          R"({"identifier":7,"sessionID":"0F8FAD5B-D9CB-469F-A165-70867728950E"})"}) {
        EXPECT_FALSE(decode<FileIOBeginReadRequest>(bytesOf(bad))) << bad;
    }
    for (const char* bad : {R"({"identifier":"a","size":1,"expectedContentVersion":"AQI"})",
                            R"({"identifier":"a","size":1,"expectedContentVersion":"A QID"})",
                            R"({"identifier":"a","size":1,"expectedContentVersion":[1]})",
                            R"({"identifier":"a"})", R"(["a",1])"}) {
        EXPECT_FALSE(decode<RelayTruncateWriteRequest>(bytesOf(bad))) << bad;
    }
    for (const char* bad : {R"({"status":"6"})", R"({"status":6.0})", R"({})", "6", ""}) {
        EXPECT_FALSE(decode<FileIODeviceRejection>(bytesOf(bad))) << bad;
    }
    // A summary is not a rejection, which is how a coordinator tells the two apart.
    EXPECT_FALSE(decode<FileIODeviceRejection>(*encode(relay::RelayItemSummary{})));
    EXPECT_FALSE(decode<RelayWriteChunkResponse>(
        bytesOf(R"({"nextOffset":1,"currentSize":1,"summary":{"identifier":"a"}})")));
}

TEST(FileIORecords, EnumsConvertOnlyTheirRawRange) {
    EXPECT_EQ(fileIOOperationFromRaw(0), FileIOOperation::beginRead);
    EXPECT_EQ(fileIOOperationFromRaw(3), FileIOOperation::endWrite);
    EXPECT_FALSE(fileIOOperationFromRaw(4));
    EXPECT_FALSE(fileIOOperationFromRaw(-1));
    EXPECT_EQ(fileIOBridgeErrorFromRaw(1), FileIOBridgeError::notRegistered);
    EXPECT_EQ(fileIOBridgeErrorFromRaw(3), FileIOBridgeError::decodeFailed);
    EXPECT_EQ(fileIOBridgeErrorFromRaw(4), FileIOBridgeError::noDevice);
    EXPECT_EQ(fileIOBridgeErrorFromRaw(8), FileIOBridgeError::encodeFailed);
    EXPECT_FALSE(fileIOBridgeErrorFromRaw(9));
}

TEST(ChunkBodies, ReadRequestLayoutIsLittleEndianWithoutPadding) {
    const auto body = encodeReadChunkRequest("ab", 0x0102030405060708ULL);
    ASSERT_TRUE(body);
    const Bytes expected{2, 0, 'a', 'b', 8, 7, 6, 5, 4, 3, 2, 1, 0, 0, 0x40, 0};
    EXPECT_EQ(*body, expected);
    EXPECT_EQ(decodeReadChunkRequest(*body),
              (ReadChunkRequest{"ab", 0x0102030405060708ULL, kChunkSize}));

    const Bytes chunk{9, 8, 7};
    const auto write = encodeWriteChunkRequest("ab", 5, chunk);
    ASSERT_TRUE(write);
    EXPECT_EQ(*write, (Bytes{2, 0, 'a', 'b', 5, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, 9, 8, 7}));
    const auto decoded = decodeWriteChunkRequest(*write);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(*decoded, (WriteChunkRequest{"ab", 5, chunk}));
    // The chunk is a view of the body, not a copy.
    EXPECT_EQ(decoded->bytes.data(), write->data() + 16);
}

TEST(ChunkBodies, IdentifierAndChunkLimits) {
    const std::string longest(65'535, 'x');
    const auto read = encodeReadChunkRequest(longest, 0);
    ASSERT_TRUE(read);
    EXPECT_EQ(decodeReadChunkRequest(*read)->identifier, longest);
    EXPECT_FALSE(encodeReadChunkRequest(longest + "x", 0));
    EXPECT_FALSE(encodeWriteChunkRequest(longest + "x", 0, Bytes{1}));
    EXPECT_FALSE(encodeReadChunkRequest("\xff", 0));

    const auto header = encodeWriteChunkHeader("a", 0, kMaxWriteChunkBytes);
    ASSERT_TRUE(header);
    EXPECT_EQ(Bytes(header->end() - 4, header->end()), (Bytes{0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_FALSE(encodeWriteChunkHeader("a", 0, kMaxWriteChunkBytes + 1));

    // The empty identifier and chunk are valid bodies.
    const auto empty = encodeWriteChunkRequest("", 0, {});
    ASSERT_TRUE(empty);
    EXPECT_EQ(decodeWriteChunkRequest(*empty), (WriteChunkRequest{"", 0, {}}));
}

TEST(ChunkBodies, DecodersTakeExactlyOneBody) {
    const Bytes read = *encodeReadChunkRequest("ab", 1, 2);
    const Bytes write = *encodeWriteChunkRequest("ab", 1, Bytes{1, 2, 3});
    // Every shorter prefix, and one byte more.
    for (std::size_t n = 0; n < read.size(); ++n) {
        EXPECT_FALSE(decodeReadChunkRequest(std::span(read).first(n))) << n;
    }
    for (std::size_t n = 0; n < write.size(); ++n) {
        EXPECT_FALSE(decodeWriteChunkRequest(std::span(write).first(n))) << n;
    }
    Bytes longer = read;
    longer.push_back(0);
    EXPECT_FALSE(decodeReadChunkRequest(longer));
    longer = write;
    longer.push_back(0);
    EXPECT_FALSE(decodeWriteChunkRequest(longer));

    // An identifier length beyond the body, and an identifier that is not UTF-8.
    Bytes overlong = read;
    overlong[0] = 0xFF;
    EXPECT_FALSE(decodeReadChunkRequest(overlong));
    Bytes notText = read;
    notText[2] = 0xC3;
    EXPECT_FALSE(decodeReadChunkRequest(notText));
    // A chunk length that disagrees with the bytes that follow.
    Bytes miscounted = write;
    miscounted[12] = 4;
    EXPECT_FALSE(decodeWriteChunkRequest(miscounted));
}

}  // namespace
}  // namespace skiff::transfer
