// The PC row's receive thread against a transfer side that takes bytes late:
// held back by a ring without room for a read, it resumes as room is made,
// and every byte arrives once and in order.
#include <atomic>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "channel/channel_internal.hpp"
#include "log_capture.hpp"
#include "process/config.hpp"

namespace {

// Row 1 reading a pipe, with its ring, buffer and semaphores, as the opening
// leaves it; torn down again at the end of the test.
class PcRowOnPipe {
public:
    PcRowOnPipe() {
        EXPECT_EQ(pipe2(p_, O_NONBLOCK), 0);
        AmtChannel& row = listAmtSrv[kChannelPc];
        config_file_st.m_usb_activate = 0;
        row.fd = p_[0];
        row.run_flag = 1;
        row.catch_log = 1;
        row.not_enough_count = 0;
        row.down_total = 0;
        row.temp_write_buffer = static_cast<uint8_t*>(calloc(1, kTempBufferSize));
        EXPECT_EQ(initializeRingBuf(&row.ring_buf, kRingCapacity), 0);
        EXPECT_TRUE(row.rcv_sem.create(0));
        EXPECT_TRUE(row.room_sem.create(0));
    }
    ~PcRowOnPipe() {
        AmtChannel& row = listAmtSrv[kChannelPc];
        row.fd = -1;
        row.catch_log = 0;
        free(row.temp_write_buffer);
        row.temp_write_buffer = nullptr;
        releaseRingBuf(&row.ring_buf);
        row.rcv_sem.destroy();
        row.room_sem.destroy();
        close(p_[0]);
        close(p_[1]);
    }
    int write_end() const { return p_[1]; }
    int read_end() const { return p_[0]; }

private:
    int p_[2] = {-1, -1};
};

TEST(ReceiveThread, HeldBackByAFullRingItResumesWhenRoomIsMadeAndLosesNothing) {
    LogCapture log;
    PcRowOnPipe pipe_row;
    AmtChannel& row = listAmtSrv[kChannelPc];
    std::vector<uint8_t> sent(3 * kRingCapacity);
    for (size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<uint8_t>(i * 13 + i / 257);

    pthread_t receiver{};
    ASSERT_EQ(pub_util_create_thread(&receiver, receive_chansrv_data_proc, nullptr, false), 0);
    row.thread_id = receiver;
    // The PC: writes everything, waiting whenever the pipe is full.
    std::thread feeder([&] {
        for (size_t done = 0; done < sent.size();) {
            ssize_t n = write(pipe_row.write_end(), sent.data() + done, sent.size() - done);
            if (n > 0) {
                done += static_cast<size_t>(n);
            } else {
                usleep(500);
            }
        }
    });

    // Take nothing until the receive thread has stopped reading for want of room.
    while (!log.contains("receive_msg_data not enough nTmp:")) usleep(1000);
    EXPECT_LE(getRingBufFreeLen(&row.ring_buf), static_cast<int32_t>(kTempBufferSize));

    // Then take it all as the transfer thread does, in pieces.
    std::vector<uint8_t> got;
    std::vector<uint8_t> piece(3000);
    int idle_looks = 0;  // 20 ms each: 500 in a row means the bytes stopped coming
    while (got.size() < sent.size() && idle_looks < 500) {
        int32_t n = readRingBuf(&row.ring_buf, piece.data(), static_cast<uint32_t>(piece.size()));
        channel_room_made(row);
        if (n > 0) {
            got.insert(got.end(), piece.begin(), piece.begin() + n);
            idle_looks = 0;
        } else {
            row.rcv_sem.wait_for(20);
            ++idle_looks;
        }
    }
    EXPECT_EQ(got.size(), sent.size()) << "bytes stopped coming";
    if (got.size() < sent.size()) {
        std::vector<uint8_t> drop(65536);
        while (read(pipe_row.read_end(), drop.data(), drop.size()) > 0) {
        }
    }
    feeder.join();
    EXPECT_EQ(pub_util_kill_thread(&row.thread_id), 0);
    EXPECT_EQ(pthread_join(receiver, nullptr), 0);
    EXPECT_TRUE(got == sent);
    EXPECT_FALSE(log.contains("loss data"));
    EXPECT_EQ(row.down_total.load(), static_cast<uint32_t>(sent.size()));
}

}  // namespace
