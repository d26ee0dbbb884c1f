// The PC side's frame reader: bytes from the line come in any cut, with
// garbage between frames, and each whole frame comes out once, in order.
#include <cstdint>
#include <gtest/gtest.h>
#include <vector>

#include "tools/lib/pc_frame_codec.hpp"

namespace {

using Bytes = std::vector<uint8_t>;

// Response 18 with result word 0.
const Bytes kResponse18 = {0xAA, 0xBB, 0xCC, 0xDD, 0x10, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00,
                           0x12, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xDA, 0xBD, 0x91, 0xC9};
const Bytes kPreResponse = {0xAA, 0xBB, 0xCC, 0xDD, 0x08, 0x00, 0x00, 0x00,
                            0x02, 0x02, 0x00, 0x00, 0x76, 0x4A, 0xEE, 0x1D};

Bytes join(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// Feeds the stream in pieces ending at the given cuts and collects every frame.
std::vector<Bytes> cut(const Bytes& stream, const std::vector<size_t>& cuts, tools::PcFrameCutter* cutter) {
    std::vector<Bytes> frames;
    size_t from = 0;
    std::vector<size_t> ends = cuts;
    ends.push_back(stream.size());
    for (size_t to : ends) {
        cutter->feed(std::span<const uint8_t>(stream.data() + from, to - from));
        while (auto f = cutter->next()) frames.push_back(*f);
        from = to;
    }
    return frames;
}

TEST(PcFrameReader, FrameCutAtEveryByteIsAssembledOnce) {
    const Bytes stream = join({kPreResponse, kResponse18});
    for (size_t at = 0; at <= stream.size(); ++at) {
        tools::PcFrameCutter cutter;
        auto frames = cut(stream, {at}, &cutter);
        ASSERT_EQ(frames.size(), 2u) << "cut at " << at;
        EXPECT_EQ(frames[0], kPreResponse) << "cut at " << at;
        EXPECT_EQ(frames[1], kResponse18) << "cut at " << at;
        EXPECT_FALSE(cutter.has_pending_bytes());
        EXPECT_EQ(cutter.skipped(), 0u);
    }
    // One byte at a time.
    std::vector<size_t> every;
    for (size_t i = 1; i < stream.size(); ++i) every.push_back(i);
    tools::PcFrameCutter cutter;
    auto frames = cut(stream, every, &cutter);
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[1], kResponse18);
}

TEST(PcFrameReader, GarbageBeforeAHeadIsSkippedAndCounted) {
    // Broken heads, one ending in AA just before the real head.
    const Bytes garbage = {0x00, 0xAA, 0xBB, 0xCC, 0x11, 0xAA, 0xBB, 0xAA};
    const Bytes stream = join({garbage, kResponse18});
    for (size_t at = 0; at <= stream.size(); ++at) {
        tools::PcFrameCutter cutter;
        auto frames = cut(stream, {at}, &cutter);
        ASSERT_EQ(frames.size(), 1u) << "cut at " << at;
        EXPECT_EQ(frames[0], kResponse18);
        EXPECT_EQ(cutter.skipped(), garbage.size()) << "cut at " << at;
    }
}

TEST(PcFrameReader, HeadWithAnImpossibleLengthIsNoFrame) {
    const Bytes bogus = {0xAA, 0xBB, 0xCC, 0xDD, 0xFF, 0xFF, 0x00, 0x00};   // frame_len 65535
    const Bytes too_short = {0xAA, 0xBB, 0xCC, 0xDD, 0x07, 0x00, 0x00, 0x00};  // frame_len 7
    tools::PcFrameCutter cutter;
    auto frames = cut(join({bogus, too_short, kResponse18}), {}, &cutter);
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0], kResponse18);
}

TEST(PcFrameReader, FrameNotYetWholeIsHeldBack) {
    tools::PcFrameCutter cutter;
    cutter.feed(std::span<const uint8_t>(kResponse18.data(), kResponse18.size() - 1));
    EXPECT_FALSE(cutter.next().has_value());
    EXPECT_TRUE(cutter.has_pending_bytes());
    cutter.feed(std::span<const uint8_t>(kResponse18.data() + kResponse18.size() - 1, 1));
    auto f = cutter.next();
    ASSERT_TRUE(f.has_value());
    EXPECT_EQ(*f, kResponse18);
}

TEST(PcFrameDecoding, WorkedFrameDecodesWithItsResultAndAGoodCrc) {
    auto d = tools::decode_pc_frame(kResponse18);
    ASSERT_TRUE(d.has_value());
    EXPECT_TRUE(d->has_cmd);
    EXPECT_EQ(d->cmd, 18u);
    EXPECT_EQ(d->frame_len, 16u);
    ASSERT_TRUE(d->result_word().has_value());
    EXPECT_EQ(*d->result_word(), 0u);
    EXPECT_TRUE(d->crc_ok());
    EXPECT_NE(tools::describe_pc_frame(*d).find("crc OK 0xC991BDDA"), std::string::npos);

    Bytes bad = kResponse18;
    bad[20] ^= 0x01;
    auto b = tools::decode_pc_frame(bad);
    ASSERT_TRUE(b.has_value());
    EXPECT_FALSE(b->crc_ok());
    EXPECT_NE(tools::describe_pc_frame(*b).find("crc BAD 0xC991BDDB expected 0xC991BDDA"), std::string::npos);
}

TEST(PcFrameDecoding, PreResponseHasNoCmdAndAGoodCrc) {
    EXPECT_TRUE(tools::is_pre_response(kPreResponse));
    EXPECT_FALSE(tools::is_pre_response(kResponse18));
    auto d = tools::decode_pc_frame(kPreResponse);
    ASSERT_TRUE(d.has_value());
    EXPECT_FALSE(d->has_cmd);
    EXPECT_TRUE(d->body.empty());
    EXPECT_TRUE(d->crc_ok());
}

TEST(PcFrameBuilding, CommandFrameIsTheWorkedFrame) {
    const Bytes body = {0x00, 0x00, 0x00, 0x00};
    auto f = tools::build_pc_frame(18, body);
    ASSERT_TRUE(f.has_value());
    EXPECT_EQ(*f, kResponse18);
    EXPECT_FALSE(tools::build_pc_frame(1, Bytes(tools::kPcBodyMax + 1)).has_value());
}

}  // namespace
