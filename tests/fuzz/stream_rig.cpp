#include "stream_rig.hpp"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "channel/amt_channel.hpp"
#include "process/config.hpp"
#include "services/rftab_list.hpp"
#include "services/wf_id.hpp"

namespace fuzz {
namespace {

constexpr size_t kStreamMax = kRingCapacity;  // the ring holds a whole input: a chunk never waits for room
// Cuts per input: each costs a few ring operations, and a long stream cut
// into single bytes would take most of the fuzzer's time. The rest of the
// stream behind the last cut comes in one piece.
constexpr size_t kMaxChunks = 1024;
constexpr const char* kNoDirectory = "/nonexistent-ovta-fuzz/";

bool read_only_root() {
    struct statvfs st {};
    return statvfs("/", &st) == 0 && (st.f_flag & ST_RDONLY) != 0;
}

bool set_up() {
    if (!read_only_root()) {
        fprintf(stderr, "the stream targets run only on a read-only root: use scripts/fuzz.sh\n");
        return false;
    }
    // A wfmgr stream out of step ends the service by SIGTERM to the process;
    // here that must not end the fuzzer.
    signal(SIGTERM, SIG_IGN);
    cfg_init();
    config_file_st.m_usb_activate = 0;
    ovta_amt_init();
    const int dev_null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (dev_null < 0) return false;
    for (uint32_t i = 0; i < 2; ++i) {
        AmtChannel& row = listAmtSrv[i];
        row.fd = dev_null;
        row.catch_log = 1;
        if (initializeRingBuf(&row.ring_buf, kRingCapacity) != 0) return false;
    }
    return true;
}

// What one input may have changed for the next: the two directories, the RF
// table list, the current wf_id, and the row: its link state, its ring and
// where its assembly stands. temp_msg is cleared too, so that an input that
// fails alone fails again when it is run again.
void reset(AmtChannel& row) {
    cfg_set_amt_relate_path(kNoDirectory);
    cfg_set_rf_relate_path(kNoDirectory);
    rftab_list_clear();
    set_wf_id(kNoWfId);
    for (uint32_t i = 0; i < 2; ++i) listAmtSrv[i].m_socket_conn_status = kConnOpen;
    row.temp_msg_process_len = 0;
    row.m_nLoadLen = 0;
    row.m_msg_cmd = 0;
    row.assembly_phase = AssemblyPhase::kStart;
    row.head_search = HeadSearch{};
    row.skip_left = 0;
    memset(row.temp_msg, 0, sizeof(row.temp_msg));
    int32_t left = getRingBufDataLen(&row.ring_buf);
    while (left > 0) {
        uint8_t drop[4096];
        int32_t got = readRingBuf(&row.ring_buf, drop, sizeof(drop));
        if (got <= 0) abort();
        left -= got;
    }
}

size_t take_chunk_sizes(const uint8_t*& data, size_t& size, size_t* sizes) {
    if (size == 0) return 0;
    size_t n = data[0] & 7u;
    ++data;
    --size;
    if (n > size) n = size;
    for (size_t i = 0; i < n; ++i) sizes[i] = static_cast<size_t>(data[i]) + 1;
    data += n;
    size -= n;
    return n;
}

// Runs the steps that the bytes in the ring allow, up to the point where the
// thread would wait. False when the link has ended.
bool steps_until_wait(uint32_t index, TransferStep* last) {
    for (;;) {
        TransferStep step = transfer_step(index);
        if (step == TransferStep::kDispatched) continue;
        *last = step;
        return step != TransferStep::kOutOfStep;
    }
}

// The thread now waits for bytes that do not come: the wait must be sound.
// Checked once, at the input's end: any state at a cut inside the stream is
// also the end state of a shorter input.
void check_wait(uint32_t index, TransferStep step) {
    AmtChannel& row = listAmtSrv[index];
    const int32_t held = getRingBufDataLen(&row.ring_buf);
    // Bytes left in the ring behind an endless wait would lie there until
    // the peer sends again.
    if (step == TransferStep::kIdle && held != 0) __builtin_trap();
    // A wake-up without new bytes must change nothing.
    if (transfer_step(index) != step || getRingBufDataLen(&row.ring_buf) != held) __builtin_trap();
}

}  // namespace

bool stream_rig_ready() {
    static const bool ready = set_up();
    return ready;
}

void run_stream(uint32_t index, const uint8_t* data, size_t size) {
    if (!stream_rig_ready()) abort();
    size_t sizes[8];
    const size_t n_sizes = take_chunk_sizes(data, size, sizes);
    if (size > kStreamMax) size = kStreamMax;
    AmtChannel& row = listAmtSrv[index];
    reset(row);
    size_t pos = 0;
    TransferStep last = TransferStep::kIdle;
    for (size_t i = 0; pos < size; ++i) {
        size_t n = n_sizes == 0 || i + 1 >= kMaxChunks ? size - pos : sizes[i % n_sizes];
        if (n > size - pos) n = size - pos;
        if (writeRingBuf(&row.ring_buf, data + pos, static_cast<uint32_t>(n)) != static_cast<int32_t>(n)) abort();
        pos += n;
        if (!steps_until_wait(index, &last)) return;
    }
    check_wait(index, last);
}

}  // namespace fuzz
