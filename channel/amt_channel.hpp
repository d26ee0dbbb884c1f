// The table of the two links. Row 0 is the link to wfmgr (TCP client to port
// 8030), row 1 the link to the PC (/dev/ttyGS3). A row holds the whole state
// of its link: descriptors, threads, ring, counters and the assembly buffer.
//
// Who touches what, once a row is open:
// - the receive thread writes the ring, down_total, not_enough_count and,
//   for a server row, accept_fd; it posts rcv_sem after every write to the
//   ring, which is what the transfer thread sleeps on while it waits for bytes;
// - the transfer thread reads the ring and alone owns temp_msg,
//   temp_msg_process_len, m_nLoadLen, m_msg_cmd and the assembly state
//   (assembly_phase, head_search, skip_left);
// - a receive thread held back by a ring without room for a read publishes
//   the room it needs in room_wanted and sleeps on room_sem; the transfer
//   thread posts room_sem once that much room is free (channel_room_made),
//   and does nothing more than one atomic load while nobody waits;
// - any thread may send through write_msg_to_socket (fd, up_total,
//   m_socket_conn_status);
// - close_ovta_amt runs once per row (closed_flag is an atomic exchange) on
//   whichever thread gets there first; it stops and joins the row's threads
//   before it releases their buffers.
// Fields that cross threads are atomics; the rest belong to one thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <pthread.h>

#include "channel/event_sem.hpp"
#include "channel/ring_buf.hpp"
#include "process/pub_util.hpp"
#include "protocol/head_search.hpp"

constexpr uint32_t kChannelTypeDevice = 0;
constexpr uint32_t kChannelTypeTcpServer = 1;
constexpr uint32_t kChannelTypeTcpClient = 2;

constexpr uint32_t kChannelWfmgr = 0;
constexpr uint32_t kChannelPc = 1;

constexpr uint32_t kRingCapacity = 262144;
constexpr size_t kTempBufferSize = 10240;
constexpr size_t kTempMsgSize = 40960;
constexpr int kOpenTries = 20;

// Where a transfer thread stands in the message it puts together: nothing of
// one taken yet, the PC head search, the header, the body, or the rest of a
// wfmgr message too long to hold that is being dropped.
enum class AssemblyPhase : uint8_t { kStart, kHead, kHeader, kBody, kSkip };

constexpr int32_t kConnNotYet = -1;
constexpr int32_t kConnOpen = 0;
constexpr int32_t kConnClosed = 1;

using ThreadProc = void* (*)(void*);

struct AmtChannel {
    AmtChannel() = default;
    AmtChannel(const char* row_name, uint32_t row_type, uint32_t row_port, ThreadProc receive, ThreadProc transfer);
    AmtChannel(const AmtChannel&) = delete;
    AmtChannel& operator=(const AmtChannel&) = delete;

    // Static description.
    char name[64] = {};
    uint32_t type = 0;
    uint32_t port = 0;
    ThreadProc receive_proc = nullptr;
    ThreadProc transfer_proc = nullptr;

    // Run-time state, at the values of a reset row.
    std::atomic<int32_t> fd{-1};
    std::atomic<int32_t> accept_fd{-1};
    ThreadHandle thread_id{pthread_t{}};
    RingBuf ring_buf{};
    uint32_t m_nLoadLen = 0;
    uint32_t m_msg_cmd = 0;
    uint8_t type_id = 0;
    ThreadHandle buf_thread_id{pthread_t{}};
    std::atomic<int8_t> run_flag{1};
    std::atomic<int8_t> catch_log{0};
    std::atomic<uint32_t> closed_flag{0};
    std::atomic<bool> close_done{false};  // set when close_ovta_amt has finished the row
    uint8_t* temp_buffer = nullptr;
    uint8_t* temp_write_buffer = nullptr;
    EventSem open_sem;
    std::atomic<uint32_t> down_total{0};
    std::atomic<uint32_t> up_total{0};
    uint8_t temp_msg[kTempMsgSize] = {};
    int32_t temp_msg_process_len = 0;
    AssemblyPhase assembly_phase = AssemblyPhase::kStart;
    HeadSearch head_search{};
    uint32_t skip_left = 0;  // bytes of an overlong message still to drop
    uint32_t not_enough_count = 0;
    std::atomic<int32_t> m_socket_conn_status{kConnNotYet};
    EventSem rcv_sem;
    std::atomic<uint32_t> room_wanted{0};  // free bytes the receive thread waits for; 0: it does not wait
    EventSem room_sem;                     // posted by the transfer thread when that room is there
};

// Two channels and the terminator row (null receive_proc).
constexpr size_t kChannelRows = 3;
extern AmtChannel listAmtSrv[kChannelRows];

int ovta_amt_init();
int open_all_device();

// Receive path.
int receive_msg_data(uint32_t index);
void* receive_wfmgr_srv_data_proc(void*);
void* receive_chansrv_data_proc(void*);

// Assembly.
void* treat_wfmgr_relate_buf_proc(void*);
void* treat_chansrv_relate_buf_proc(void*);

// What one step of a transfer thread ended with, and so what it waits for.
enum class TransferStep {
    kDispatched,  // a whole message went through the dispatcher
    kIdle,        // nothing of a message is held: the wait for bytes has no end
    kMoreBytes,   // a message (or a PC head) has begun: the ring is looked at again within 20 ms
    kOutOfStep,   // the wfmgr stream cannot be trusted any more: the link ends
};
// One step of row index's transfer thread (0 wfmgr, 1 PC): takes from the ring
// what it holds, up to the end of the next message, and dispatches that
// message once it is whole. Never waits: the thread waits between steps as
// the result says, and a driver without threads (the fuzz targets) feeds the
// ring and calls it directly. Called by the row's transfer thread only.
TransferStep transfer_step(uint32_t index);

// Move the header, then the rest of the message, from the ring into temp_msg
// once the ring holds all of it. 0 when it is in temp_msg, kMsgPartPending
// while the ring holds less (nothing is taken then).
constexpr int kMsgPartPending = 1;
int get_msg_head(uint32_t index);
int get_msg_body(uint32_t index);
int check_msg_header(AmtChannel* row, const uint8_t* buf, int32_t len);
int check_msg_header_ex(AmtChannel* row, const uint8_t* buf, int32_t len);

// Sending and teardown.
int write_msg_to_socket(const uint8_t* buf, int32_t len, uint32_t index);
int close_ovta_amt(uint32_t index);
int amt_handle_deinit();

// The descriptor a row reads and sends on: accept_fd for a server row.
inline int channel_io_fd(const AmtChannel& row) {
    return row.type == kChannelTypeTcpServer ? row.accept_fd.load() : row.fd.load();
}

// Verbose-log timer of the channels (kept for the teardown's order of steps).
extern TimerHandle g_LogPrintTimer;

// Dispatchers (protocol/).
int dispatch_msg(AmtChannel* row);
int dispatch_msg_ex(AmtChannel* row);
