#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>

#include "sim/mux_message.hpp"

namespace skiff::sim {
namespace {

std::vector<uint8_t> frame(const std::string& body, uint32_t tag = 7, uint32_t version = 1,
                           uint32_t message = 8) {
    std::vector<uint8_t> out;
    for (uint32_t field : {uint32_t(16 + body.size()), version, message, tag}) {
        for (int i = 0; i < 4; ++i) {
            out.push_back(uint8_t(field >> (8 * i)));
        }
    }
    for (char c : body) {
        out.push_back(uint8_t(c));
    }
    return out;
}

std::string plistXml(const std::string& items) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>" + items +
           "</dict></plist>";
}

MuxRequest decode(const std::vector<uint8_t>& bytes) {
    auto header = parseMuxHeader(bytes);
    EXPECT_TRUE(header.has_value());
    return decodeMuxRequest(*header, std::span(bytes).subspan(16));
}

TEST(MuxMessage, HeaderRejectsShortInputAndImpossibleLengths) {
    auto good = frame("x");
    EXPECT_FALSE(parseMuxHeader(std::span(good).first(15)).has_value());
    auto tooShort = frame("");
    tooShort[0] = 15;
    EXPECT_FALSE(parseMuxHeader(tooShort).has_value());
    auto huge = frame("");
    huge[3] = 0x7f;
    EXPECT_FALSE(parseMuxHeader(huge).has_value());
    EXPECT_EQ(parseMuxHeader(good)->length, 17u);
}

TEST(MuxMessage, RequestsDecodeToTheirKindOrToTheErrorToAnswer) {
    struct Case {
        std::vector<uint8_t> bytes;
        MuxRequestKind kind;
        MuxResult error;
    };
    std::vector<Case> cases = {
        {frame(plistXml("<key>MessageType</key><string>ListDevices</string>")),
         MuxRequestKind::listDevices, MuxResult::ok},
        {frame(plistXml("<key>MessageType</key><string>Listen</string>")), MuxRequestKind::listen,
         MuxResult::ok},
        {frame("not a plist at all"), MuxRequestKind::malformed, MuxResult::badCommand},
        {frame(plistXml("<key>ProgName</key><string>x</string>")), MuxRequestKind::malformed,
         MuxResult::badCommand},
        {frame(plistXml("<key>MessageType</key><string>Connect</string>"
                        "<key>DeviceID</key><integer>1</integer>")),
         MuxRequestKind::malformed, MuxResult::badCommand},
        {frame(plistXml("<key>MessageType</key><string>Connect</string>"
                        "<key>DeviceID</key><integer>1</integer>"
                        "<key>PortNumber</key><integer>70000</integer>")),
         MuxRequestKind::malformed, MuxResult::badCommand},
        {frame(plistXml("<key>MessageType</key><string>ReadBUID</string>")),
         MuxRequestKind::unsupported, MuxResult::badCommand},
        {frame("", 7, 0, 3), MuxRequestKind::malformed, MuxResult::badVersion},
        {frame(""), MuxRequestKind::malformed, MuxResult::badCommand},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(i);
        auto request = decode(cases[i].bytes);
        EXPECT_EQ(request.kind, cases[i].kind);
        EXPECT_EQ(request.error, cases[i].error);
        EXPECT_EQ(request.tag, 7u);
    }
    EXPECT_EQ(decode(frame(plistXml("<key>MessageType</key><string>Listen</string>"), 3)).tag, 3u);

    // The port travels byte-swapped into network order inside the integer.
    auto connect =
        decode(frame(plistXml("<key>MessageType</key><string>Connect</string>"
                              "<key>DeviceID</key><integer>4</integer>"
                              "<key>PortNumber</key><integer>" +
                              std::to_string(htons(33325)) + "</integer>")));
    EXPECT_EQ(connect.kind, MuxRequestKind::connect);
    EXPECT_EQ(connect.deviceId, 4u);
    EXPECT_EQ(connect.port, 33325);

    // A payload that does not match the header's length is not trusted.
    auto bytes = frame(plistXml("<key>MessageType</key><string>Listen</string>"));
    auto header = parseMuxHeader(bytes);
    EXPECT_EQ(decodeMuxRequest(*header, std::span(bytes).subspan(17)).kind,
              MuxRequestKind::malformed);
}

}  // namespace
}  // namespace skiff::sim
