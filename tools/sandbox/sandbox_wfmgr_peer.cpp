#include "sandbox_wfmgr_peer.hpp"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace sandbox {

std::unique_ptr<WfmgrPeer> WfmgrPeer::listen(uint16_t port, std::string* why) {
    std::string scratch;
    if (why == nullptr) why = &scratch;
    std::unique_ptr<WfmgrPeer> peer(new WfmgrPeer());
    peer->listen_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (peer->listen_fd_ < 0) {
        *why = std::string("socket: ") + strerror(errno);
        return nullptr;
    }
    int one = 1;
    setsockopt(peer->listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(peer->listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        ::listen(peer->listen_fd_, 4) != 0) {
        *why = "listening on port " + std::to_string(port) + ": " + strerror(errno);
        return nullptr;
    }
    return peer;
}

WfmgrPeer::~WfmgrPeer() {
    close_connection();
    stop_listening();
}

bool WfmgrPeer::accept(Millis timeout) {
    if (listen_fd_ < 0) return false;
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        auto left = std::chrono::duration_cast<Millis>(deadline - std::chrono::steady_clock::now()).count();
        pollfd p{listen_fd_, POLLIN, 0};
        int r = poll(&p, 1, static_cast<int>(left < 0 ? 0 : left));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == EAGAIN) continue;
            return false;
        }
        close_connection();
        conn_fd_ = fd;
        return true;
    }
}

bool WfmgrPeer::send(std::span<const uint8_t> bytes, Millis timeout) {
    // write() on a socket whose peer has gone raises SIGPIPE; the test
    // process keeps the default action, so writes go through send().
    if (conn_fd_ < 0) return false;
    auto deadline = std::chrono::steady_clock::now() + timeout;
    size_t done = 0;
    while (done < bytes.size()) {
        auto left = std::chrono::duration_cast<Millis>(deadline - std::chrono::steady_clock::now()).count();
        pollfd p{conn_fd_, POLLOUT, 0};
        int r = poll(&p, 1, static_cast<int>(left < 0 ? 0 : left));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        ssize_t n = ::send(conn_fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN) continue;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

std::optional<Bytes> WfmgrPeer::read_exact(size_t n, Millis timeout) {
    if (conn_fd_ < 0) return std::nullopt;
    return sandbox::read_exact(conn_fd_, n, timeout);
}

std::optional<Bytes> WfmgrPeer::read_message(Millis timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    auto head = read_exact(4, timeout);
    if (!head) return std::nullopt;
    uint32_t total = static_cast<uint32_t>((*head)[0]) | static_cast<uint32_t>((*head)[1]) << 8 |
                     static_cast<uint32_t>((*head)[2]) << 16 | static_cast<uint32_t>((*head)[3]) << 24;
    if (total < 4) return head;  // a broken length: hand back what there is
    auto left = std::chrono::duration_cast<Millis>(deadline - std::chrono::steady_clock::now());
    auto rest = read_exact(total - 4, left < Millis(0) ? Millis(0) : left);
    if (!rest) return std::nullopt;
    head->insert(head->end(), rest->begin(), rest->end());
    return head;
}

bool WfmgrPeer::quiet_for(Millis window) {
    return conn_fd_ < 0 || sandbox::quiet_for(conn_fd_, window);
}

void WfmgrPeer::close_connection() {
    if (conn_fd_ >= 0) ::close(conn_fd_);
    conn_fd_ = -1;
}

void WfmgrPeer::stop_listening() {
    if (listen_fd_ >= 0) ::close(listen_fd_);
    listen_fd_ = -1;
}

}  // namespace sandbox
