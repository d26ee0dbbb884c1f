#include "stream_rig.hpp"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/statvfs.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "channel/amt_channel.hpp"
#include "process/config.hpp"
#include "process/pub_util.hpp"
#include "services/rftab_list.hpp"
#include "services/wf_id.hpp"

namespace fuzz {
namespace {

constexpr size_t kStreamMax = kRingCapacity;  // the ring holds a whole input: a chunk never waits for room
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
    cfg_init();
    config_file_st.m_usb_activate = 0;
    ovta_amt_init();
    static const int dev_null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    for (uint32_t i = 0; i < 2; ++i) {
        listAmtSrv[i].fd = dev_null;
        listAmtSrv[i].m_socket_conn_status = kConnOpen;
    }
    return dev_null >= 0;
}

// What one input may have changed for the next: the two directories, the RF
// table list, the current wf_id; and the row itself.
void reset(AmtChannel& row) {
    cfg_set_amt_relate_path(kNoDirectory);
    cfg_set_rf_relate_path(kNoDirectory);
    rftab_list_clear();
    set_wf_id(kNoWfId);
    row.run_flag = 1;
    row.catch_log = 1;
    row.closed_flag = 1;  // a thread that ends by itself must not close the row
    row.buf_thread_id = pthread_t{};
    row.temp_msg_process_len = 0;
    row.m_nLoadLen = 0;
    row.m_msg_cmd = 0;
    memset(row.temp_msg, 0, sizeof(row.temp_msg));
    row.rcv_sem.create(0);
    row.room_sem.create(0);
    initializeRingBuf(&row.ring_buf, kRingCapacity);
}

std::vector<size_t> chunk_sizes(const uint8_t*& data, size_t& size) {
    std::vector<size_t> sizes;
    if (size == 0) return sizes;
    size_t n = data[0] & 7u;
    ++data;
    --size;
    if (n > size) n = size;
    for (size_t i = 0; i < n; ++i) sizes.push_back(static_cast<size_t>(data[i]) + 1);
    data += n;
    size -= n;
    return sizes;
}

void wait_until_taken(const AmtChannel& row, const std::atomic<bool>& done) {
    while (!row.rcv_sem.has_sleeper() && !done.load()) sched_yield();
}

}  // namespace

bool stream_rig_ready() {
    static const bool ready = set_up();
    return ready;
}

void run_stream(uint32_t index, const uint8_t* data, size_t size) {
    if (!stream_rig_ready()) abort();
    // A wfmgr stream out of step ends the service by SIGTERM to the process;
    // here that must not end the fuzzer.
    signal(SIGTERM, SIG_IGN);
    std::vector<size_t> sizes = chunk_sizes(data, size);
    if (size > kStreamMax) size = kStreamMax;
    AmtChannel& row = listAmtSrv[index];
    reset(row);

    std::atomic<bool> done{false};
    const pthread_t transfer = pthread_self();
    std::thread feeder([&] {
        size_t pos = 0;
        for (size_t i = 0; pos < size; ++i) {
            size_t n = sizes.empty() ? size : sizes[i % sizes.size()];
            if (n > size - pos) n = size - pos;
            wait_until_taken(row, done);
            if (done.load()) return;
            writeRingBuf(&row.ring_buf, data + pos, static_cast<uint32_t>(n));
            row.rcv_sem.post();
            pos += n;
        }
        wait_until_taken(row, done);
        if (done.load()) return;
        ThreadHandle handle{transfer};
        pub_util_kill_thread(&handle);
    });
    {
        // The agent starts its transfer threads stoppable; here the fuzzer's
        // own thread plays that thread, stopped by the feeder at the end.
        ThreadStopScope stoppable;
        if (index == kChannelPc) {
            treat_chansrv_relate_buf_proc(nullptr);
        } else {
            treat_wfmgr_relate_buf_proc(nullptr);
        }
    }
    done = true;
    feeder.join();
    releaseRingBuf(&row.ring_buf);
    row.rcv_sem.destroy();
    row.room_sem.destroy();
}

}  // namespace fuzz
