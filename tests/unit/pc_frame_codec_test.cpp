// The PC side's frame reader: bytes from the line come in any cut, with
// garbage, handshake offers and impossible heads between frames, and each
// whole frame comes out once, in order.
#include <cstdint>
#include <gtest/gtest.h>
#include <vector>

#include "pc/lib/pc_frame_codec.hpp"

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

// The agent offers AA BB CC DD 7F once a second until the PC first writes:
// its head is a frame head, but what follows never makes a length that fits.
TEST(PcFrameReader, FramesBehindGarbageHandshakesAndImpossibleHeadsComeOutOnceAtAnyCut) {
    const Bytes garbage = {0x00, 0xAA, 0xBB, 0xCC, 0x11, 0xAA, 0xBB, 0xAA};  // broken heads
    const Bytes handshake = {0xAA, 0xBB, 0xCC, 0xDD, 0x7F};
    const Bytes too_long = {0xAA, 0xBB, 0xCC, 0xDD, 0xFF, 0xFF, 0x00, 0x00};   // frame_len 65535
    const Bytes too_short = {0xAA, 0xBB, 0xCC, 0xDD, 0x07, 0x00, 0x00, 0x00};  // frame_len 7
    const Bytes stream = join({garbage, handshake, handshake, kPreResponse, too_long, too_short, kResponse18});
    std::vector<size_t> every;  // one byte at a time
    for (size_t at = 1; at < stream.size(); ++at) every.push_back(at);
    std::vector<std::vector<size_t>> cuts = {every};
    for (size_t at = 0; at <= stream.size(); ++at) cuts.push_back({at});
    for (const std::vector<size_t>& c : cuts) {
        SCOPED_TRACE(c.size() == 1 ? "cut at " + std::to_string(c[0]) : "byte by byte");
        tools::PcFrameCutter cutter;
        auto frames = cut(stream, c, &cutter);
        ASSERT_EQ(frames.size(), 2u);
        EXPECT_EQ(frames[0], kPreResponse);
        EXPECT_EQ(frames[1], kResponse18);
        EXPECT_EQ(cutter.skipped(), 34u);
        EXPECT_FALSE(cutter.has_pending_bytes());
    }
}

}  // namespace
