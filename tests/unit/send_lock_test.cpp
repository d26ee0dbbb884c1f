// The send lock of a row: senders on one row take turns, each message stays
// whole on the line, and a stop ends a sender's wait for the lock.
#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>
#include <vector>

#include "channel/amt_channel.hpp"
#include "channel/send_lock.hpp"
#include "log_capture.hpp"

namespace {

// Row 0 sending into a pipe for the length of a test.
class RowOnPipe {
public:
    RowOnPipe() {
        EXPECT_EQ(pipe2(p_, O_NONBLOCK), 0);
        listAmtSrv[0].fd = p_[1];
        listAmtSrv[0].m_socket_conn_status = kConnOpen;
    }
    ~RowOnPipe() {
        listAmtSrv[0].fd = -1;
        listAmtSrv[0].m_socket_conn_status = kConnNotYet;
        close(p_[0]);
        close(p_[1]);
    }
    int read_end() const { return p_[0]; }

private:
    int p_[2] = {-1, -1};
};

struct Sender {
    std::vector<uint8_t> message;
    int rounds = 0;
    std::atomic<bool> registered{false};
    std::atomic<int> result{1};
};

void* send_proc(void* arg) {
    auto* s = static_cast<Sender*>(arg);
    ThreadStopScope scope;
    s->registered = true;
    int r = 0;
    for (int i = 0; i < s->rounds && r == 0; ++i) {
        r = write_msg_to_socket(s->message.data(), static_cast<int32_t>(s->message.size()), 0);
    }
    s->result = r;
    return nullptr;
}

TEST(SendLock, AStopEndsASenderWaitingForTheLockAndTheHolderStillSends) {
    LogCapture log;
    RowOnPipe row;
    SendLock& lock = channel_send_lock(0);
    ASSERT_TRUE(lock.lock());  // another sender holds the row
    Sender waiting;
    waiting.message.assign(24, 0x11);
    waiting.rounds = 1;
    pthread_t tid{};
    ASSERT_EQ(pthread_create(&tid, nullptr, send_proc, &waiting), 0);
    while (!waiting.registered) usleep(1000);
    usleep(20000);  // let it reach its wait
    ThreadHandle handle{tid};
    EXPECT_EQ(pub_util_kill_thread(&handle), 0);
    for (int i = 0; i < 10000 && waiting.result == 1; ++i) usleep(1000);
    EXPECT_EQ(waiting.result, -1) << "the stop did not end the wait for the lock";
    pollfd pf{row.read_end(), POLLIN, 0};
    EXPECT_EQ(poll(&pf, 1, 0), 0) << "the stopped sender wrote nothing";

    lock.unlock();  // also lets a sender that missed its stop finish
    ASSERT_EQ(pthread_join(tid, nullptr), 0);
    char drop[64];
    while (read(row.read_end(), drop, sizeof(drop)) > 0) {
    }
    uint8_t frame[24];
    memset(frame, 0x22, sizeof(frame));
    EXPECT_EQ(write_msg_to_socket(frame, sizeof(frame), 0), 0);
    uint8_t got[32] = {};
    EXPECT_EQ(read(row.read_end(), got, sizeof(got)), 24);
    EXPECT_EQ(got[0], 0x22);
}

// Messages larger than a pipe takes at once go out in pieces; without the
// lock the pieces of two senders would interleave.
TEST(SendLock, TwoSendersOnOneRowKeepEachMessageWhole) {
    LogCapture log;
    RowOnPipe row;
    constexpr size_t kSize = 10000;
    constexpr int kRounds = 200;
    Sender a, b;
    a.message.assign(kSize, 0xA1);
    b.message.assign(kSize, 0xB2);
    a.rounds = b.rounds = kRounds;
    pthread_t ta{}, tb{};
    ASSERT_EQ(pthread_create(&ta, nullptr, send_proc, &a), 0);
    ASSERT_EQ(pthread_create(&tb, nullptr, send_proc, &b), 0);
    std::vector<uint8_t> got;
    std::vector<uint8_t> buf(65536);
    while (got.size() < 2 * kSize * kRounds) {
        pollfd pf{row.read_end(), POLLIN, 0};
        ASSERT_GT(poll(&pf, 1, 10000), 0) << "the senders stopped sending";
        ssize_t n = read(row.read_end(), buf.data(), buf.size());
        if (n > 0) got.insert(got.end(), buf.begin(), buf.begin() + n);
    }
    pthread_join(ta, nullptr);
    pthread_join(tb, nullptr);
    EXPECT_EQ(a.result, 0);
    EXPECT_EQ(b.result, 0);
    size_t broken = 0;
    for (size_t m = 0; m < got.size(); m += kSize) {
        for (size_t i = 1; i < kSize; ++i) broken += got[m + i] != got[m];
    }
    EXPECT_EQ(broken, 0u);
    EXPECT_FALSE(log.contains("write to device failure"));
}

}  // namespace
