// The teardown against what other threads are still doing: a start that opens
// a descriptor as the service ends, and a row that another thread is still
// closing when the teardown's wait for it runs out.
#include <arpa/inet.h>
#include <atomic>
#include <gtest/gtest.h>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "channel/channel_internal.hpp"
#include "log_capture.hpp"
#include "process/config.hpp"
#include "usb/usb_entry.hpp"

namespace {

int listen_on_loopback(uint16_t* port) {
    int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    if (s < 0 || bind(s, reinterpret_cast<sockaddr*>(&addr), len) != 0 || listen(s, 4) != 0 ||
        getsockname(s, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        return -1;
    }
    *port = ntohs(addr.sin_port);
    return s;
}

// The wfmgr socket is connected while the teardown holds the rows; once the
// teardown has passed, nobody but the start can close it.
TEST(TeardownRace, SocketConnectedWhileTheServiceEndsIsClosedByTheStart) {
    LogCapture log;
    uint16_t port = 0;
    int listener = listen_on_loopback(&port);
    ASSERT_GE(listener, 0);
    config_file_st.m_usb_activate = 0;
    ASSERT_EQ(ovta_amt_init(), 0);
    listAmtSrv[kChannelWfmgr].port = port;

    std::unique_lock<std::mutex> teardown(g_channel_lifecycle_lock);
    std::atomic<int> result{1};
    std::thread start([&] { result = open_all_device(); });
    pollfd pf{listener, POLLIN, 0};
    ASSERT_EQ(poll(&pf, 1, 10000), 1) << "the start did not connect";
    int peer = accept(listener, nullptr, nullptr);
    ASSERT_GE(peer, 0);
    channel_mark_teardown();
    teardown.unlock();
    start.join();

    EXPECT_NE(result.load(), 0);
    EXPECT_EQ(listAmtSrv[kChannelWfmgr].fd.load(), -1);
    pollfd closed{peer, POLLIN, 0};
    ASSERT_EQ(poll(&closed, 1, 10000), 1) << "the socket is still open";
    char b = 0;
    EXPECT_LE(read(peer, &b, 1), 0);
    EXPECT_TRUE(log.contains("opened while the service was ending"));
    close(peer);
    close(listener);
}

// A thread still waits on the semaphore of a row whose close has not
// finished: the teardown leaves it open, so a post still wakes that thread.
TEST(TeardownRace, SemaphoreOfARowStillClosingIsLeftToItsWaiter) {
    LogCapture log;
    config_file_st.m_usb_activate = 0;
    ASSERT_EQ(ovta_amt_init(), 0);
    AmtChannel& row = listAmtSrv[kChannelWfmgr];
    row.closed_flag = 1;  // another thread has begun the close and not finished it
    std::atomic<int> woke{-1};
    std::thread waiter([&] { woke = row.rcv_sem.wait() ? 1 : 0; });
    while (!row.rcv_sem.has_sleeper()) usleep(1000);

    g_blnPropertySet = 1;
    amt_handle_deinit();
    EXPECT_TRUE(log.contains("semaphores are left open"));
    row.rcv_sem.post();
    waiter.join();
    EXPECT_EQ(woke.load(), 1);
    row.close_done = true;
    row.rcv_sem.destroy();
    row.room_sem.destroy();
}

}  // namespace
