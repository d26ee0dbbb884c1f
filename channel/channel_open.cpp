// Opening the rows of listAmtSrv: the descriptor with its retries, the ring
// and work buffers, the two threads, and last catch_log, which lets the
// threads work. Runs on the main thread during the start.
#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include "channel/channel_internal.hpp"
#include "process/config.hpp"

namespace {

constexpr uint32_t kOpenRetrySleepMs = 1000;

// Every wait of a channel thread polls, so its descriptors never need to block;
// a full descriptor then never holds a sender beyond the reach of its stop.
void make_nonblocking(int fd) {
    int flags = fcntl(fd, F_GETFL);
    if (flags >= 0) fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

bool teardown_started();

int open_device(AmtChannel& row, uint32_t index, int* opened) {
    log_dbg("try to open device \"%s\". index:%d.", row.name, static_cast<int>(index));
    int fd = -1;
    for (int tries = 0; tries < kOpenTries && fd < 0; ++tries) {
        if (teardown_started()) return kRetResource;
        fd = open(row.name, O_RDWR | O_CLOEXEC | O_NOCTTY);
        if (fd < 0) {
            log_dbg("failed to open device %s,error:%d-%s \n", row.name, errno, strerror(errno));
            pub_util_msleep(kOpenRetrySleepMs);
        }
    }
    if (fd < 0) {
        log_dbg("failed to open device %s,error:%d-%s. circle times:%d\n", row.name, errno, strerror(errno), kOpenTries);
        return kRetResource;
    }
    tcflush(fd, TCIOFLUSH);
    *opened = fd;
    return 0;
}

int open_socket(AmtChannel& row, uint32_t index, bool server, int* opened) {
    log_dbg(server ? "try to create server socket.port:%d . index:%d." : "try to create client socket.port:%d . index:%d.",
            static_cast<int>(row.port), static_cast<int>(index));
    for (int tries = 0; tries < kOpenTries; ++tries) {
        if (teardown_started()) return kRetResource;
        int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (sock == -1) {
            log_dbg("failed to creat socket,error:%d-%s.", errno, strerror(errno));
        } else {
            if (server) {
                log_dbg("Socket created.index:%d.", static_cast<int>(index));
            } else {
                log_dbg("Socket created.index:%d. sock:%d.", static_cast<int>(index), sock);
            }
            sockaddr_in addr{};
            addr.sin_family = AF_INET;
            addr.sin_port = htons(static_cast<uint16_t>(row.port));
            addr.sin_addr.s_addr = 0;  // all zero: reaches a listener on this machine
            int one = 1;
            setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
            linger lg{1, 0};
            setsockopt(sock, SOL_SOCKET, SO_LINGER, &lg, sizeof(lg));
            // Each message leaves in one write and is wanted at once: without
            // this, a message sent while the previous one is not yet
            // acknowledged waits for the peer's delayed ACK (up to 40 ms).
            // An accepted socket inherits it from its listener.
            setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
            auto* sa = reinterpret_cast<sockaddr*>(&addr);
            if (server) {
                if (bind(sock, sa, sizeof(addr)) != 0) {
                    log_dbg("failed to bind socket(%d),error:%d-%s. index:%d.", sock, errno, strerror(errno), static_cast<int>(index));
                    close(sock);
                } else if (listen(sock, 1) != 0) {
                    log_dbg("failed to listen socket(%d),error:%d-%s. index:%d.", sock, errno, strerror(errno), static_cast<int>(index));
                    close(sock);
                } else {
                    *opened = sock;
                    return 0;
                }
            } else if (connect(sock, sa, sizeof(addr)) == 0) {
                *opened = sock;
                row.m_socket_conn_status = kConnOpen;
                return 0;
            } else {
                log_dbg("failed to connect socket(%d),error:%d-%s. index:%d.", sock, errno, strerror(errno), static_cast<int>(index));
                close(sock);
            }
        }
        log_dbg("failed to open socket, type_id %d,port:%d.", static_cast<int>(index), static_cast<int>(row.port));
        pub_util_msleep(kOpenRetrySleepMs);
    }
    log_dbg("failed to open socket, type_id %d,port:%d.. circle times:%d.", static_cast<int>(index), static_cast<int>(row.port), kOpenTries);
    return kRetResource;
}

// Steps after the descriptor: ring, buffers, threads, then the gate.
int open_ovta_amt(AmtChannel& row, uint32_t index) {
    int fd = row.fd;
    if (row.type == kChannelTypeDevice) {
        log_dbg("opened device \"%s\". fd:%d. index:%d.", row.name, fd, static_cast<int>(index));
        row.m_socket_conn_status = kConnOpen;
        if (strstr(row.name, "TTY") != nullptr || strstr(row.name, "tty") != nullptr) {
            log_dbg("set_serial_dev_attr. ret_val:%d.", set_serial_dev_attr(fd));
        }
    } else {
        log_dbg("opened socket, port:%d. fd:%d.index:%d.", static_cast<int>(row.port), fd, static_cast<int>(index));
    }
    make_nonblocking(fd);

    if (initializeRingBuf(&row.ring_buf, kRingCapacity) != 0) {
        log_dbg("Memory malloc failed!!");
        return kRetResource;
    }
    row.temp_buffer = static_cast<uint8_t*>(calloc(1, kTempBufferSize));
    if (row.temp_buffer == nullptr) {
        log_dbg("malloc temp-buffer memory fail(%d)", static_cast<int>(kTempBufferSize));
        return kRetResource;
    }
    row.temp_write_buffer = static_cast<uint8_t*>(calloc(1, kTempBufferSize));
    if (row.temp_write_buffer == nullptr) {
        log_dbg("malloc temp-write-buffer memory fail(%d)", static_cast<int>(kTempBufferSize));
        return kRetResource;
    }
    pthread_t tid{};
    int err = pub_util_create_thread(&tid, row.receive_proc, nullptr, false);
    if (err != 0) {
        log_dbg("pthread_create() receive_thread fail: %d", err);
        return kRetResource;
    }
    row.thread_id = tid;
    log_dbg("pthread_create. thread_id:%lu\n", static_cast<unsigned long>(tid));
    err = pub_util_create_thread(&tid, row.transfer_proc, nullptr, false);
    if (err != 0) {
        log_dbg("pthread_create() transfer_thread fail: %d", err);
        return kRetResource;
    }
    row.buf_thread_id = tid;
    log_dbg("pthread_create. buf_thread_id:%lu\n", static_cast<unsigned long>(tid));
    row.open_sem.create(1);
    row.catch_log = 1;
    log_dbg("open_ovta_amt success. fd:%d\n", fd);
    return 0;
}

std::atomic<bool> g_teardown_started{false};
bool teardown_started() { return g_teardown_started.load(); }

}  // namespace

// Called by the teardown, under the lifecycle lock: no row opens after it.
void channel_mark_teardown() { g_teardown_started = true; }

int open_all_device() {
    if (listAmtSrv[0].receive_proc == nullptr) {
        log_dbg("open_all_device success. \n");
        return 0;
    }
    for (uint32_t index = 0;; ++index) {
        AmtChannel& row = listAmtSrv[index];
        bool skip = config_file_st.m_usb_activate == 0 && strcmp(row.name, "/dev/ttyGS3") == 0;
        if (!skip) {
            int result = 0;
            int opened = -1;
            {
                std::unique_lock<std::mutex> hold(g_channel_lifecycle_lock, std::defer_lock);
                switch (row.type) {
                    case kChannelTypeDevice: result = open_device(row, index, &opened); break;
                    case kChannelTypeTcpServer: result = open_socket(row, index, true, &opened); break;
                    case kChannelTypeTcpClient: result = open_socket(row, index, false, &opened); break;
                    default:
                        log_dbg("device type is not valid:%d.", static_cast<int>(row.type));
                        result = kRetBadSize;
                        break;
                }
                // The descriptor joins the row only under the lock, where the
                // teardown cannot be half done: one opened while the service
                // was ending is closed here, since the teardown has passed.
                hold.lock();
                if (result == 0 && teardown_started()) {
                    log_dbg("close descriptor %d of %s, opened while the service was ending", opened, row.name);
                    close(opened);
                    result = kRetResource;
                }
                if (result == 0) {
                    row.fd = opened;
                    result = open_ovta_amt(row, index);
                }
                if (result != 0) {
                    if (row.closed_flag.exchange(1) != 1) close_ovta_amt(index);
                    log_dbg("open_ovta_amt failure\n");
                    return result;
                }
            }
        }
        if (listAmtSrv[index + 1].receive_proc == nullptr) {
            log_dbg("open_all_device success. \n");
            return 0;
        }
        if (index != 0) {
            log_dbg("open_ovta_amt invalid parameter.");
            return kRetInvalidParam;
        }
    }
}
