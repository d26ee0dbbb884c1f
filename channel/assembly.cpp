// Transfer threads: one per open row. Each takes bytes from the row's ring,
// puts one whole message together in temp_msg and dispatches it on the same
// thread; the next message waits in the ring until the dispatcher returns.
// The thread alone owns temp_msg, temp_msg_process_len, m_nLoadLen and
// m_msg_cmd. Every wait watches the thread's stop event (pub_util.hpp).
//
// The thread sleeps on rcv_sem, which the receive thread posts after every
// write to the ring, so bytes end each wait as they come. Between messages,
// and in the head search before any head byte matched, the wait has no end
// but bytes or a stop: an idle link costs no wake-up at all. While a message
// is under way each wait lasts at most 20 ms before the ring is looked at
// again. rcv_sem counts writes, not bytes: a wait may return with too few
// bytes, and the ring is looked at again after every wake-up.
//
// Lengths are checked before anything is waited for: a PcFrame's frame_len
// must lie in 8..40952 and a WfMsg's total_len in 20..40960, or the message
// could overrun temp_msg or wait for a rest that can never come.
#include <cstring>

#include "channel/channel_internal.hpp"
#include "process/bytes.hpp"
#include "protocol/head_search.hpp"
#include "protocol/pc_frame.hpp"
#include "protocol/wf_msg.hpp"

namespace {

constexpr uint32_t kIdleMs = 10;
constexpr uint32_t kBytesWaitMs = 20;

uint32_t header_size(uint32_t index) { return index == kChannelPc ? 12 : 20; }

// Waits until the ring holds at least count bytes of a started message:
// each look sleeps until the receive thread has written to the ring (rcv_sem
// is posted after every write), at most 20 ms. False on a stop.
bool wait_for_bytes(AmtChannel& row, uint32_t count) {
    while (getRingBufDataLen(&row.ring_buf) < static_cast<int32_t>(count)) {
        if (!row.rcv_sem.wait_for(kBytesWaitMs)) return false;
    }
    return true;
}

// Every read from the ring may free the room that the receive thread waits for.
int32_t take_from_ring(AmtChannel& row, uint8_t* dst, uint32_t count) {
    int32_t got = readRingBuf(&row.ring_buf, dst, count);
    channel_room_made(row);
    return got;
}

// Reads count bytes into temp_msg behind what it holds.
void take_bytes(AmtChannel& row, uint32_t count) {
    int32_t got = take_from_ring(row, row.temp_msg + row.temp_msg_process_len, count);
    if (got < static_cast<int32_t>(count)) {
        log_dbg("loss data. will_read_len:%d, readed_len:%d", static_cast<int>(count), got);
    }
    if (got > 0) row.temp_msg_process_len += got;
}

// Runs the head search until a head is found. False on a stop. With no head
// byte matched, an empty ring means that nothing has started: the thread
// sleeps until bytes come, however long that takes. Once a head has begun,
// it looks again at least every 20 ms like the other waits of a message.
bool find_head(AmtChannel& row) {
    HeadSearch search;
    for (;;) {
        if (getRingBufDataLen(&row.ring_buf) <= 0) {
            bool go_on = search.state == 0 ? row.rcv_sem.wait() : row.rcv_sem.wait_for(kBytesWaitMs);
            if (!go_on) return false;
            continue;
        }
        uint8_t byte = 0;
        if (take_from_ring(row, &byte, 1) != 1) continue;
        if (verbose_log()) log_dbg(" char:%02x, nIndex:%d", byte, search.state);
        if (head_search_step(&search, byte) == HeadSearchResult::kFound) return true;
    }
}

// Reads and drops count bytes as they arrive, so that the link stays in step
// behind a message too long to hold. False on a stop.
bool skip_bytes(AmtChannel& row, uint32_t count) {
    while (count > 0) {
        int32_t held = getRingBufDataLen(&row.ring_buf);
        if (held <= 0) {
            if (!row.rcv_sem.wait_for(kBytesWaitMs)) return false;
            continue;
        }
        uint32_t chunk = static_cast<uint32_t>(held) < count ? static_cast<uint32_t>(held) : count;
        if (chunk > kTempMsgSize) chunk = kTempMsgSize;
        int32_t got = take_from_ring(row, row.temp_msg, chunk);
        if (got > 0) count -= static_cast<uint32_t>(got);
    }
    return true;
}

void log_header_dump(const uint8_t* data, int32_t len) {
    pub_util_log_hex("head data:", data, static_cast<size_t>(len), 500);
}

enum class Step { kNext, kStop, kEnd };

Step wait_for_message_start(AmtChannel& row, bool wait_once) {
    while (!row.catch_log) {
        if (!pub_util_msleep(kIdleMs)) return Step::kStop;
        if (!row.run_flag) return Step::kEnd;
    }
    while (isRingBufEmpty(&row.ring_buf) == 1) {
        if (!row.rcv_sem.wait()) return pub_util_stop_requested() ? Step::kStop : Step::kEnd;
        if (wait_once) break;
    }
    return Step::kNext;
}

}  // namespace

int get_msg_head(uint32_t index) {
    AmtChannel& row = listAmtSrv[index];
    uint32_t size = header_size(index);
    if (!wait_for_bytes(row, size)) return 0;
    take_bytes(row, size);
    return 0;
}

int get_msg_body(uint32_t index) {
    AmtChannel& row = listAmtSrv[index];
    uint32_t rest = row.m_nLoadLen - static_cast<uint32_t>(row.temp_msg_process_len);
    if (verbose_log()) {
        log_dbg("get_msg_body, i:%d, m_nLoadLen:%d, temp_msg_process_len:%d.", static_cast<int>(index),
                static_cast<int>(row.m_nLoadLen), row.temp_msg_process_len);
    }
    if (rest == 0) return 0;
    if (!wait_for_bytes(row, rest)) return 0;
    take_bytes(row, rest);
    if (verbose_log()) {
        log_dbg("get_msg_body end, i:%d, m_nLoadLen:%d, temp_msg_process_len:%d.", static_cast<int>(index),
                static_cast<int>(row.m_nLoadLen), row.temp_msg_process_len);
        int32_t n = row.temp_msg_process_len < 50 ? row.temp_msg_process_len : 50;
        pub_util_log_hex("head data:", row.temp_msg, static_cast<size_t>(n), 1000);
    }
    return 0;
}

namespace {

// The header of either format gives the message's id and total size; the
// verbose line names the checker and the length field as received.
int check_header(AmtChannel* row, const uint8_t* buf, int32_t len, bool pc_frame) {
    if (row == nullptr || buf == nullptr || len == 0) {
        log_dbg("check_msg_header invalid parameter.");
        return -1;
    }
    std::span<const uint8_t> head(buf, static_cast<size_t>(len));
    uint32_t length_field = bytes::get_le32(head, pc_frame ? kPcOffFrameLen : kWfOffTotalLen);
    row->m_msg_cmd = bytes::get_le32(head, pc_frame ? kPcOffCmd : kWfOffMsgId);
    row->m_nLoadLen = pc_frame ? length_field + 8 : length_field;  // frame_len leaves out head and itself
    if (verbose_log()) {
        log_dbg("%s(),message-type:%lu paylod_len:%lu.", pc_frame ? "check_msg_header_ex" : "check_msg_header",
                static_cast<unsigned long>(row->m_msg_cmd), static_cast<unsigned long>(length_field));
        log_header_dump(buf, len);
    }
    return 0;
}

}  // namespace

int check_msg_header(AmtChannel* row, const uint8_t* buf, int32_t len) { return check_header(row, buf, len, false); }

int check_msg_header_ex(AmtChannel* row, const uint8_t* buf, int32_t len) { return check_header(row, buf, len, true); }

void* treat_wfmgr_relate_buf_proc(void*) {
    AmtChannel& row = listAmtSrv[kChannelWfmgr];
    log_dbg("start treat_wfmgr_relate_buf_proc");
    while (row.run_flag) {
        Step s = wait_for_message_start(row, false);
        if (s == Step::kStop) return channel_thread_stopped();
        if (s == Step::kEnd) break;
        row.temp_msg_process_len = 0;
        get_msg_head(kChannelWfmgr);
        if (pub_util_stop_requested()) return channel_thread_stopped();
        check_msg_header(&row, row.temp_msg, row.temp_msg_process_len);
        if (row.m_nLoadLen < kWfHeaderLen) {
            // No marker to find the next message by: the stream cannot be
            // trusted any more, so the link ends as a lost wfmgr does.
            log_dbg("wfmgr message total_len:%u is below the header size %u, link out of step, closing it.",
                    row.m_nLoadLen, static_cast<unsigned>(kWfHeaderLen));
            row.m_socket_conn_status = kConnClosed;
            pub_util_send_exit_signal();
            break;
        }
        if (row.m_nLoadLen > kWfMsgLenMax) {
            log_dbg("wfmgr message total_len:%u above %u, msg_id:0x%x skipped.", row.m_nLoadLen, kWfMsgLenMax,
                    row.m_msg_cmd);
            if (!skip_bytes(row, row.m_nLoadLen - static_cast<uint32_t>(kWfHeaderLen))) return channel_thread_stopped();
            continue;
        }
        get_msg_body(kChannelWfmgr);
        if (pub_util_stop_requested()) return channel_thread_stopped();
        dispatch_msg(&row);
        if (pub_util_stop_requested()) return channel_thread_stopped();
    }
    channel_thread_end(kChannelWfmgr, &AmtChannel::buf_thread_id, "stop treat_wfmgr_relate_buf_proc");
    return nullptr;
}

void* treat_chansrv_relate_buf_proc(void*) {
    AmtChannel& row = listAmtSrv[kChannelPc];
    log_dbg("start treat_chansrv_relate_buf_proc");
    while (row.run_flag) {
        Step s = wait_for_message_start(row, true);
        if (s == Step::kStop) return channel_thread_stopped();
        if (s == Step::kEnd) break;
        if (isRingBufEmpty(&row.ring_buf) == 1) continue;
        // temp_msg is zero behind the frame before: only the bytes the last
        // frame filled need clearing (handlers write nothing but zeros into
        // it), not all 40 KiB at every frame.
        memset(row.temp_msg, 0, static_cast<size_t>(row.temp_msg_process_len));
        row.temp_msg_process_len = 0;
        if (!find_head(row)) return channel_thread_stopped();
        memcpy(row.temp_msg, kFrameHead, sizeof(kFrameHead));
        row.temp_msg_process_len += 4;
        get_msg_head(kChannelPc);
        if (pub_util_stop_requested()) return channel_thread_stopped();
        check_msg_header_ex(&row, row.temp_msg, row.temp_msg_process_len);
        uint32_t frame_len = row.m_nLoadLen - 8;
        if (frame_len < kPcFrameLenMin || frame_len > kPcFrameLenMax) {
            // The head search resumes right behind the 16 header bytes, so a
            // lying length costs this frame only, not the ones behind it.
            log_dbg("frame_len:%u out of range (%u-%u), frame of cmd %u dropped.", frame_len, kPcFrameLenMin,
                    kPcFrameLenMax, row.m_msg_cmd);
            continue;
        }
        get_msg_body(kChannelPc);
        if (pub_util_stop_requested()) return channel_thread_stopped();
        dispatch_msg_ex(&row);
        if (pub_util_stop_requested()) return channel_thread_stopped();
    }
    channel_thread_end(kChannelPc, &AmtChannel::buf_thread_id, "stop treat_chansrv_relate_buf_proc");
    return nullptr;
}
