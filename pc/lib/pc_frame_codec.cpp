#include "pc/lib/pc_frame_codec.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "wire/bytes.hpp"
#include "wire/pc_frame_layout.hpp"
#include "pc/lib/hex_text.hpp"

namespace tools {

namespace {

constexpr size_t kOffFrameLen = 4;
constexpr size_t kOffCmd = 12;
constexpr size_t kFrontLen = 8;  // head and frame_len, not counted by frame_len

}  // namespace

std::optional<std::vector<uint8_t>> build_pc_frame(uint32_t cmd, std::span<const uint8_t> body) {
    if (body.size() > kPcBodyMax) return std::nullopt;
    const auto frame_len = static_cast<uint32_t>(12 + body.size());
    std::vector<uint8_t> frame(kPcHeaderLen + body.size() + kPcCrcLen);  // zeroes kind and reserved
    std::copy(std::begin(kFrameHead), std::end(kFrameHead), frame.begin());
    bytes::put_le32(frame, kOffFrameLen, frame_len);
    frame[kPcOffTag] = kFrameTag;
    bytes::put_le32(frame, kOffCmd, cmd);
    std::copy(body.begin(), body.end(), frame.begin() + kPcHeaderLen);
    const auto covered = static_cast<int32_t>(frame_len + 4);
    bytes::put_le32(frame, static_cast<size_t>(covered), static_cast<uint32_t>(amt_crc32(frame.data(), covered)));
    return frame;
}

std::optional<uint32_t> DecodedPcFrame::result_word() const {
    if (body.size() < 4) return std::nullopt;
    return bytes::get_le32(body, 0);
}

std::optional<DecodedPcFrame> decode_pc_frame(std::span<const uint8_t> frame) {
    if (frame.size() < kPcHeaderLen || !std::equal(kFrameHead, kFrameHead + 4, frame.begin())) return std::nullopt;
    DecodedPcFrame out;
    out.frame_len = bytes::get_le32(frame, kOffFrameLen);
    if (out.frame_len < kPcFrameLenMin || out.frame_len > kPcFrameLenMax) return std::nullopt;
    if (frame.size() != out.frame_len + kFrontLen) return std::nullopt;
    out.frame_tag = frame[8];
    out.frame_kind = frame[9];
    const size_t crc_at = out.frame_len + 4;
    out.has_cmd = crc_at >= kOffCmd + 4;
    if (out.has_cmd) out.cmd = bytes::get_le32(frame, kOffCmd);
    if (crc_at > kPcHeaderLen) out.body.assign(frame.begin() + kPcHeaderLen, frame.begin() + crc_at);
    out.crc_received = bytes::get_le32(frame, crc_at);
    out.crc_expected = static_cast<uint32_t>(amt_crc32(frame.data(), static_cast<int32_t>(crc_at)));
    return out;
}

bool is_pre_response(std::span<const uint8_t> frame) {
    return frame.size() == sizeof(amt_pre_response) &&
           std::equal(frame.begin(), frame.end(), std::begin(amt_pre_response));
}

std::string describe_pc_frame(const DecodedPcFrame& frame) {
    char line[160];
    std::string out;
    if (frame.has_cmd) {
        snprintf(line, sizeof(line), "cmd %u frame_len %u", frame.cmd, frame.frame_len);
    } else {
        snprintf(line, sizeof(line), "no cmd, frame_len %u", frame.frame_len);
    }
    out += line;
    if (auto result = frame.result_word()) {
        snprintf(line, sizeof(line), " result %u", *result);
        out += line;
    }
    out += '\n';
    snprintf(line, sizeof(line), "body (%zu): ", frame.body.size());
    out += line + to_hex(frame.body) + '\n';
    out += "text: " + to_printable(frame.body) + '\n';
    if (frame.crc_ok()) {
        snprintf(line, sizeof(line), "crc OK 0x%08X\n", frame.crc_received);
    } else {
        snprintf(line, sizeof(line), "crc BAD 0x%08X expected 0x%08X\n", frame.crc_received, frame.crc_expected);
    }
    out += line;
    return out;
}

void PcFrameCutter::feed(std::span<const uint8_t> bytes) { pending_.insert(pending_.end(), bytes.begin(), bytes.end()); }

std::optional<std::vector<uint8_t>> PcFrameCutter::next() {
    for (;;) {
        auto head = std::search(pending_.begin(), pending_.end(), std::begin(kFrameHead), std::end(kFrameHead));
        const bool found = head != pending_.end();
        // Without a head, keep the last three bytes: they may begin one.
        size_t drop = static_cast<size_t>(head - pending_.begin());
        if (!found) drop = pending_.size() > 3 ? pending_.size() - 3 : 0;
        skipped_ += drop;
        pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(drop));
        if (!found || pending_.size() < kFrontLen) return std::nullopt;

        const uint32_t frame_len = bytes::get_le32(pending_, kOffFrameLen);
        if (frame_len < kPcFrameLenMin || frame_len > kPcFrameLenMax) {
            // No frame starts here: look again one byte on.
            ++skipped_;
            pending_.erase(pending_.begin());
            continue;
        }
        const size_t whole = frame_len + kFrontLen;
        if (pending_.size() < whole) return std::nullopt;
        std::vector<uint8_t> frame(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(whole));
        pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(whole));
        return frame;
    }
}

}  // namespace tools
