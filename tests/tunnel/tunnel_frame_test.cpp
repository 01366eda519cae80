#include "tunnel/tunnel_frame.hpp"

#include <gtest/gtest.h>

#include "tunnel/tunnel_errors.hpp"

namespace skiff::tunnel {
namespace {

Bytes header(std::uint8_t kind, std::uint32_t length, std::uint8_t reserved = 0) {
    Bytes h = encodeFrame(FrameKind::request, 0x0102, 7, {}).value();
    h[4] = kind;
    h[5] = reserved;
    for (int i = 0; i < 4; ++i) {
        h[12 + i] = static_cast<std::uint8_t>(length >> (8 * i));
    }
    return h;
}

bool rejected(const Bytes& bytes) {
    try {
        parseFrameHeader(bytes);
    } catch (const TunnelEngineError& e) {
        return e.errorCase() == TunnelEngineError::Case::invalidFrame;
    }
    return false;
}

TEST(TunnelFrame, HeaderIsLittleEndianWithMagicFirst) {
    Bytes frame = encodeFrame(FrameKind::push, 0x0102, 1, Bytes{0xAA, 0xBB}).value();
    EXPECT_EQ(frame, (Bytes{0x50, 0x52, 0x54, 0x55, 3, 0, 0x02, 0x01, 0x01, 0, 0, 0, 2, 0, 0, 0,
                            0xAA, 0xBB}));
    FrameHeader parsed = parseFrameHeader(std::span(frame).first(16));
    EXPECT_EQ(parsed.kind, FrameKind::push);
    EXPECT_EQ(parsed.code, 0x0102);
    EXPECT_EQ(parsed.flow, 1u);
    EXPECT_EQ(parsed.length, 2u);

    Bytes empty = encodeFrame(FrameKind::response, 0xFFFF, 0xFFFFFFFF, {}).value();
    EXPECT_EQ(empty.size(), kFrameHeaderSize);
    EXPECT_EQ(parseFrameHeader(empty).flow, 0xFFFFFFFFu);
}

TEST(TunnelFrame, PayloadLimitHoldsExactlyAtFiveMebibytes) {
    Bytes largest(maxFramePayload, 0x5A);
    auto frame = encodeFrame(FrameKind::request, 1, 1, largest);
    ASSERT_TRUE(frame.has_value());
    EXPECT_EQ(frame->size(), kFrameHeaderSize + maxFramePayload);
    EXPECT_EQ(parseFrameHeader(std::span(*frame).first(16)).length, maxFramePayload);

    largest.push_back(0);
    EXPECT_FALSE(encodeFrame(FrameKind::request, 1, 1, largest).has_value());
    EXPECT_TRUE(rejected(header(1, maxFramePayload + 1)));
    EXPECT_TRUE(rejected(header(1, 0xFFFFFFFF)));
}

TEST(TunnelFrame, ParserRejectsBadMagicKindAndSizeButPassesReservedValues) {
    for (std::uint8_t kind : {0, 6, 0xFF}) {
        EXPECT_TRUE(rejected(header(kind, 0))) << int(kind);
    }
    Bytes badMagic = header(1, 0);
    badMagic[3] = 0x56;
    EXPECT_TRUE(rejected(badMagic));
    Bytes shortHeader = header(1, 0);
    shortHeader.pop_back();
    EXPECT_TRUE(rejected(shortHeader));
    Bytes longHeader = header(1, 0);
    longHeader.push_back(0);
    EXPECT_TRUE(rejected(longHeader));
    EXPECT_TRUE(rejected({}));

    EXPECT_EQ(parseFrameHeader(header(4, 0)).kind, FrameKind::reserved4);
    EXPECT_EQ(parseFrameHeader(header(5, 0)).kind, FrameKind::reserved5);
    EXPECT_EQ(parseFrameHeader(header(2, 3, 0x9C)).reserved, 0x9C);
    // Flow 0 is never framed, but judging it is the engine's job.
    EXPECT_FALSE(encodeFrame(FrameKind::request, 1, 0, {}).has_value());
    Bytes zeroFlow = header(1, 0);
    zeroFlow[8] = 0;
    EXPECT_EQ(parseFrameHeader(zeroFlow).flow, 0u);
}

TEST(TunnelFrame, FlowCounterSkipsZeroWhenItWraps) {
    std::uint32_t counter = 1;
    EXPECT_EQ(takeFlowValue(counter), 1u);
    counter = 0xFFFFFFFE;
    EXPECT_EQ(takeFlowValue(counter), 0xFFFFFFFEu);
    EXPECT_EQ(takeFlowValue(counter), 0xFFFFFFFFu);
    EXPECT_EQ(takeFlowValue(counter), 1u);
    EXPECT_EQ(takeFlowValue(counter), 2u);
}

}  // namespace
}  // namespace skiff::tunnel
