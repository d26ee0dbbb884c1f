// PcFrames as the PC side sees them: building a command frame, cutting
// frames out of the byte stream from the phone, and decoding one for display.
// The frame layout and the CRC are the ones the agent uses (wire/).
//
// Unlike the daemon's head search, the cutter here looks for the head at every
// offset, so a PC that sees garbage on the line still finds the next frame.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace tools {

// Largest body a frame can carry: frame_len at most 40952, 12 of it taken.
constexpr size_t kPcBodyMax = 40952 - 12;

// A whole frame for cmd with this body and a fresh CRC; nothing for a body
// above kPcBodyMax.
std::optional<std::vector<uint8_t>> build_pc_frame(uint32_t cmd, std::span<const uint8_t> body);

struct DecodedPcFrame {
    uint32_t frame_len = 0;
    uint8_t frame_tag = 0;
    uint8_t frame_kind = 0;
    bool has_cmd = false;  // frame_len 8 leaves no room for cmd (the pre-response)
    uint32_t cmd = 0;
    std::vector<uint8_t> body;
    uint32_t crc_received = 0;
    uint32_t crc_expected = 0;
    bool crc_ok() const { return crc_received == crc_expected; }
    // The first word of the body, which is the result word of most responses.
    std::optional<uint32_t> result_word() const;
};

// Decodes one whole frame, frame_len + 8 bytes starting at the head; nothing
// when the bytes are no such frame.
std::optional<DecodedPcFrame> decode_pc_frame(std::span<const uint8_t> frame);

// True when the bytes are exactly the 16-byte pre-response.
bool is_pre_response(std::span<const uint8_t> frame);

// The decoded frame in a few lines of text, each ending in '\n':
// "cmd 46 frame_len 16 result 0", "body (4): 00 00 00 00", "text: ....",
// "crc OK 0x........" or "crc BAD 0x........ expected 0x........".
std::string describe_pc_frame(const DecodedPcFrame& frame);

// Collects bytes as they come and hands out whole frames. A head whose
// frame_len lies outside 8..40952 is taken for garbage and skipped.
class PcFrameCutter {
public:
    void feed(std::span<const uint8_t> bytes);
    // The next whole frame, or nothing until more bytes come.
    std::optional<std::vector<uint8_t>> next();
    // Bytes thrown away so far while looking for a head.
    size_t skipped() const { return skipped_; }
    bool has_pending_bytes() const { return !pending_.empty(); }

private:
    std::vector<uint8_t> pending_;
    size_t skipped_ = 0;
};

}  // namespace tools
