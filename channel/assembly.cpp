// Transfer threads: one per open row. Each takes bytes from the row's ring,
// puts one whole message together in temp_msg and dispatches it on the same
// thread; the next message waits in the ring until the dispatcher returns.
// The thread alone owns temp_msg, temp_msg_process_len, m_nLoadLen,
// m_msg_cmd and the assembly state. Every wait watches the thread's stop
// event (pub_util.hpp).
//
// The work is cut in two. transfer_step takes what the ring holds, up to the
// end of one message, and dispatches that message once it is whole; it never
// waits, and the row remembers where it stopped (assembly_phase, the head
// bytes matched, the bytes left to drop). The thread's loop only waits
// between steps, as the step's result says. So every cut of a message is a
// point where the thread waits and later goes on, and a driver without
// threads (the fuzz targets) runs the very same steps over any cut.
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
#include "wire/bytes.hpp"
#include "protocol/head_search.hpp"
#include "protocol/pc_frame.hpp"
#include "protocol/wf_msg.hpp"

namespace {

constexpr uint32_t kIdleMs = 10;
constexpr uint32_t kBytesWaitMs = 20;

uint32_t header_size(uint32_t index) { return index == kChannelPc ? 12 : 20; }

bool ring_holds(AmtChannel& row, uint32_t count) {
    return getRingBufDataLen(&row.ring_buf) >= static_cast<int32_t>(count);
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

// Runs the head search over what the ring holds. True once a head is found;
// false when the ring ran empty first, the search state kept in the row.
bool find_head(AmtChannel& row) {
    while (getRingBufDataLen(&row.ring_buf) > 0) {
        uint8_t byte = 0;
        if (take_from_ring(row, &byte, 1) != 1) break;
        if (verbose_log()) log_dbg(" char:%02x, nIndex:%d", byte, row.head_search.state);
        if (head_search_step(&row.head_search, byte) == HeadSearchResult::kFound) return true;
    }
    return false;
}

// Drops what the ring holds of the skip_left bytes behind a message too long
// to hold, so that the link stays in step. True once all are dropped.
bool skip_bytes(AmtChannel& row) {
    while (row.skip_left > 0) {
        int32_t held = getRingBufDataLen(&row.ring_buf);
        if (held <= 0) return false;
        uint32_t chunk = static_cast<uint32_t>(held) < row.skip_left ? static_cast<uint32_t>(held) : row.skip_left;
        if (chunk > kTempMsgSize) chunk = kTempMsgSize;
        int32_t got = take_from_ring(row, row.temp_msg, chunk);
        if (got <= 0) return false;
        row.skip_left -= static_cast<uint32_t>(got);
    }
    return true;
}

void log_header_dump(const uint8_t* data, int32_t len) {
    pub_util_log_hex("head data:", data, static_cast<size_t>(len), 500);
}

}  // namespace

int get_msg_head(uint32_t index) {
    AmtChannel& row = listAmtSrv[index];
    uint32_t size = header_size(index);
    if (!ring_holds(row, size)) return kMsgPartPending;
    take_bytes(row, size);
    return 0;
}

int get_msg_body(uint32_t index) {
    AmtChannel& row = listAmtSrv[index];
    uint32_t rest = row.m_nLoadLen - static_cast<uint32_t>(row.temp_msg_process_len);
    if (rest == 0) return 0;
    if (!ring_holds(row, rest)) return kMsgPartPending;
    if (verbose_log()) {
        log_dbg("get_msg_body, i:%d, m_nLoadLen:%d, temp_msg_process_len:%d.", static_cast<int>(index),
                static_cast<int>(row.m_nLoadLen), row.temp_msg_process_len);
    }
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

namespace {

TransferStep wfmgr_step(AmtChannel& row) {
    for (;;) {
        switch (row.assembly_phase) {
            case AssemblyPhase::kStart:
                if (isRingBufEmpty(&row.ring_buf) == 1) return TransferStep::kIdle;
                row.temp_msg_process_len = 0;
                row.assembly_phase = AssemblyPhase::kHeader;
                break;
            case AssemblyPhase::kHeader:
                if (get_msg_head(kChannelWfmgr) != 0) return TransferStep::kMoreBytes;
                check_msg_header(&row, row.temp_msg, row.temp_msg_process_len);
                if (row.m_nLoadLen < kWfHeaderLen) {
                    // No marker to find the next message by: the stream cannot
                    // be trusted any more, so the link ends as a lost wfmgr does.
                    log_dbg("wfmgr message total_len:%u is below the header size %u, link out of step, closing it.",
                            row.m_nLoadLen, static_cast<unsigned>(kWfHeaderLen));
                    row.assembly_phase = AssemblyPhase::kStart;
                    row.m_socket_conn_status = kConnClosed;
                    pub_util_send_exit_signal();
                    return TransferStep::kOutOfStep;
                }
                if (row.m_nLoadLen > kWfMsgLenMax) {
                    log_dbg("wfmgr message total_len:%u above %u, msg_id:0x%x skipped.", row.m_nLoadLen,
                            kWfMsgLenMax, row.m_msg_cmd);
                    row.skip_left = row.m_nLoadLen - static_cast<uint32_t>(kWfHeaderLen);
                    row.assembly_phase = AssemblyPhase::kSkip;
                    break;
                }
                row.assembly_phase = AssemblyPhase::kBody;
                break;
            case AssemblyPhase::kSkip:
                if (!skip_bytes(row)) return TransferStep::kMoreBytes;
                row.assembly_phase = AssemblyPhase::kStart;
                break;
            case AssemblyPhase::kBody:
                if (get_msg_body(kChannelWfmgr) != 0) return TransferStep::kMoreBytes;
                row.assembly_phase = AssemblyPhase::kStart;
                dispatch_msg(&row);
                return TransferStep::kDispatched;
            case AssemblyPhase::kHead:  // no head on this link
                row.assembly_phase = AssemblyPhase::kStart;
                break;
        }
    }
}

TransferStep pc_step(AmtChannel& row) {
    for (;;) {
        switch (row.assembly_phase) {
            case AssemblyPhase::kStart:
                if (isRingBufEmpty(&row.ring_buf) == 1) return TransferStep::kIdle;
                // temp_msg is zero behind the frame before: only the bytes the
                // last frame filled need clearing (handlers write nothing but
                // zeros into it), not all 40 KiB at every frame.
                memset(row.temp_msg, 0, static_cast<size_t>(row.temp_msg_process_len));
                row.temp_msg_process_len = 0;
                row.head_search = HeadSearch{};
                row.assembly_phase = AssemblyPhase::kHead;
                break;
            case AssemblyPhase::kHead:
                // Before any head byte matched nothing has started: the
                // thread may sleep until bytes come, however long that takes.
                if (!find_head(row)) return row.head_search.state == 0 ? TransferStep::kIdle : TransferStep::kMoreBytes;
                memcpy(row.temp_msg, kFrameHead, sizeof(kFrameHead));
                row.temp_msg_process_len += 4;
                row.assembly_phase = AssemblyPhase::kHeader;
                break;
            case AssemblyPhase::kHeader: {
                if (get_msg_head(kChannelPc) != 0) return TransferStep::kMoreBytes;
                check_msg_header_ex(&row, row.temp_msg, row.temp_msg_process_len);
                uint32_t frame_len = row.m_nLoadLen - 8;
                if (frame_len < kPcFrameLenMin || frame_len > kPcFrameLenMax) {
                    // The head search resumes right behind the 16 header bytes,
                    // so a lying length costs this frame only, not the ones
                    // behind it.
                    log_dbg("frame_len:%u out of range (%u-%u), frame of cmd %u dropped.", frame_len,
                            kPcFrameLenMin, kPcFrameLenMax, row.m_msg_cmd);
                    row.assembly_phase = AssemblyPhase::kStart;
                    break;
                }
                row.assembly_phase = AssemblyPhase::kBody;
                break;
            }
            case AssemblyPhase::kBody:
                if (get_msg_body(kChannelPc) != 0) return TransferStep::kMoreBytes;
                row.assembly_phase = AssemblyPhase::kStart;
                dispatch_msg_ex(&row);
                return TransferStep::kDispatched;
            case AssemblyPhase::kSkip:  // nothing is skipped on this link
                row.assembly_phase = AssemblyPhase::kStart;
                break;
        }
    }
}

// The loop of a transfer thread: a step, then the wait its result asks for.
void* run_transfer_thread(uint32_t index, const char* stop_message) {
    AmtChannel& row = listAmtSrv[index];
    while (row.run_flag) {
        if (!row.catch_log) {
            if (!pub_util_msleep(kIdleMs)) return channel_thread_stopped();
            continue;
        }
        TransferStep step = transfer_step(index);
        if (step == TransferStep::kOutOfStep) break;
        bool go_on = true;
        if (step == TransferStep::kIdle) {
            go_on = row.rcv_sem.wait();
        } else if (step == TransferStep::kMoreBytes) {
            go_on = row.rcv_sem.wait_for(kBytesWaitMs);
        }
        if (pub_util_stop_requested()) return channel_thread_stopped();
        if (!go_on) break;  // no semaphore: nothing could wake the thread again
    }
    channel_thread_end(index, &AmtChannel::buf_thread_id, stop_message);
    return nullptr;
}

}  // namespace

TransferStep transfer_step(uint32_t index) {
    AmtChannel& row = listAmtSrv[index];
    return index == kChannelPc ? pc_step(row) : wfmgr_step(row);
}

void* treat_wfmgr_relate_buf_proc(void*) {
    log_dbg("start treat_wfmgr_relate_buf_proc");
    return run_transfer_thread(kChannelWfmgr, "stop treat_wfmgr_relate_buf_proc");
}

void* treat_chansrv_relate_buf_proc(void*) {
    log_dbg("start treat_chansrv_relate_buf_proc");
    return run_transfer_thread(kChannelPc, "stop treat_chansrv_relate_buf_proc");
}
