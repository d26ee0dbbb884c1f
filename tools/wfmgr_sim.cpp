// wfmgr-sim: a stand-in for the phone's wfmgr service, for tests and demos.
//
//   wfmgr-sim [--port N] [--wf-id N] [--load-error N] [--amt-path PATH]
//             [--rf-path PATH] [--rftab TYPE=NAME]... [--once]
//
// Listens on 0.0.0.0 (port 8030 by default) and serves one agent connection
// at a time. On connect it tells the agent its two base directories (relate
// info indication) and its RF table list (res info indication). It answers a
// load request with a load confirm, and each forwarded PC command with an info
// transfer confirm that echoes the command's body under response number
// cmd + 1. Every message in and out is logged, decoded, on one line of stderr.
// SIGTERM and SIGINT end it with status 0; with --once, so does the agent
// closing its connection.
//
// One thread does everything: a poll over the listener or the connection and
// a signalfd for the two signals.
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <optional>
#include <poll.h>
#include <string>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <vector>

#include "process/bytes.hpp"
#include "protocol/wf_msg.hpp"
#include "tools/lib/serial_port.hpp"
#include "tools/lib/unique_fd.hpp"
#include "tools/lib/wf_messages.hpp"

namespace {

// The first body word of a file read confirm, which the agent sends as an
// info transfer request; it wants no answer.
constexpr uint32_t kFileReadCnfWord = 154;

struct Options {
    uint16_t port = 8030;
    uint32_t wf_id = 7;
    uint8_t load_error = 0;
    std::string amt_path;
    std::string rf_path;
    std::vector<tools::RftabRow> rftab;
    bool once = false;
};

void say(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void say(const char* fmt, ...) {
    char line[2048];
    va_list args;
    va_start(args, fmt);
    vsnprintf(line, sizeof(line), fmt, args);
    va_end(args);
    fprintf(stderr, "wfmgr-sim: %s\n", line);
}

void usage() {
    fprintf(stderr,
            "usage: wfmgr-sim [--port N] [--wf-id N] [--load-error N] [--amt-path PATH] [--rf-path PATH]\n"
            "                 [--rftab TYPE=NAME]... [--once]\n");
}

std::optional<unsigned long> parse_number(const char* text, unsigned long max) {
    if (text == nullptr || *text == '\0' || *text == '-') return std::nullopt;
    errno = 0;
    char* end = nullptr;
    unsigned long v = strtoul(text, &end, 0);
    if (errno != 0 || *end != '\0' || v > max) return std::nullopt;
    return v;
}

std::optional<Options> parse_args(int argc, char** argv) {
    Options opt;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (arg == "--once") {
            opt.once = true;
            continue;
        }
        if (value == nullptr) return std::nullopt;
        ++i;
        if (arg == "--port") {
            auto v = parse_number(value, 65535);
            if (!v) return std::nullopt;
            opt.port = static_cast<uint16_t>(*v);
        } else if (arg == "--wf-id") {
            auto v = parse_number(value, 0xFFFFFFFFul);
            if (!v) return std::nullopt;
            opt.wf_id = static_cast<uint32_t>(*v);
        } else if (arg == "--load-error") {
            auto v = parse_number(value, 255);
            if (!v) return std::nullopt;
            opt.load_error = static_cast<uint8_t>(*v);
        } else if (arg == "--amt-path") {
            opt.amt_path = value;
        } else if (arg == "--rf-path") {
            opt.rf_path = value;
        } else if (arg == "--rftab") {
            std::string row_text = value;
            size_t eq = row_text.find('=');
            if (eq == std::string::npos) return std::nullopt;
            auto type = parse_number(row_text.substr(0, eq).c_str(), 65535);
            if (!type) return std::nullopt;
            opt.rftab.push_back({static_cast<uint16_t>(*type), row_text.substr(eq + 1)});
        } else {
            return std::nullopt;
        }
    }
    return opt;
}

bool send_msg(int fd, const std::vector<uint8_t>& msg) {
    say("send %s", tools::describe_wf_msg(msg).c_str());
    if (tools::write_all(fd, msg)) return true;
    say("send failed: %s", strerror(errno));
    return false;
}

// Answers one message from the agent. False when the connection is lost.
bool answer(int fd, const std::vector<uint8_t>& msg, const Options& opt) {
    switch (tools::wf_msg_id(msg)) {
        case kWfLoadReq:
            return send_msg(fd, tools::build_load_cnf(opt.wf_id, opt.load_error));
        case kWfInfoTransReq: {
            if (bytes::get_le32(msg, kWfOffBody) == kFileReadCnfWord) return true;
            auto cnf = tools::build_info_trans_cnf_echo(msg);
            if (!cnf) {
                say("no cmd in the request, nothing to answer");
                return true;
            }
            return send_msg(fd, *cnf);
        }
        default:
            return true;
    }
}

tools::UniqueFd listen_on(uint16_t port) {
    tools::UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.valid()) return fd;
    int one = 1;
    setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    addr.sin_port = htons(port);
    if (bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || listen(fd.get(), 4) != 0) {
        return tools::UniqueFd();
    }
    return fd;
}

// SIGTERM and SIGINT arrive as readable bytes on this descriptor instead of
// interrupting the program wherever it is.
tools::UniqueFd exit_signal_fd() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    if (sigprocmask(SIG_BLOCK, &set, nullptr) != 0) return tools::UniqueFd();
    return tools::UniqueFd(signalfd(-1, &set, SFD_CLOEXEC));
}

int take_signal(int sig_fd) {
    signalfd_siginfo info{};
    if (read(sig_fd, &info, sizeof(info)) != static_cast<ssize_t>(sizeof(info))) return 0;
    return static_cast<int>(info.ssi_signo);
}

enum class End { kClosed, kSignal };

// Serves one agent connection until it ends or an exit signal comes.
End serve(int conn, int sig_fd, const Options& opt) {
    tools::RelateInfo relate;
    relate.wf_id = opt.wf_id;
    relate.wf_name = "wfmgr-sim";
    relate.amt_file_path = opt.amt_path;
    relate.rf_code_file_path = opt.rf_path;
    if (!send_msg(conn, tools::build_relate_info_ind(relate))) return End::kClosed;
    if (!send_msg(conn, tools::build_res_info_ind(opt.rftab))) return End::kClosed;

    tools::WfMsgReader reader;
    std::vector<uint8_t> buf(65536);
    for (;;) {
        pollfd fds[2] = {{conn, POLLIN, 0}, {sig_fd, POLLIN, 0}};
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            say("poll failed: %s", strerror(errno));
            return End::kClosed;
        }
        if ((fds[1].revents & POLLIN) != 0) {
            say("signal %d, ending", take_signal(sig_fd));
            return End::kSignal;
        }
        if (fds[0].revents == 0) continue;
        ssize_t n = recv(conn, buf.data(), buf.size(), 0);
        if (n == 0) {
            say("agent closed the connection");
            return End::kClosed;
        }
        if (n < 0) {
            if (errno == EINTR) continue;
            say("receive failed: %s", strerror(errno));
            return End::kClosed;
        }
        reader.feed(std::span<const uint8_t>(buf.data(), static_cast<size_t>(n)));
        while (auto msg = reader.next()) {
            say("recv %s", tools::describe_wf_msg(*msg).c_str());
            if (!answer(conn, *msg, opt)) return End::kClosed;
        }
        if (reader.broken()) {
            say("total_len %u outside 20..40960, closing the connection", reader.bad_total_len());
            return End::kClosed;
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::optional<Options> opt = parse_args(argc, argv);
    if (!opt) {
        usage();
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    tools::UniqueFd sig_fd = exit_signal_fd();
    if (!sig_fd.valid()) {
        say("cannot take the exit signals: %s", strerror(errno));
        return 1;
    }
    tools::UniqueFd listener = listen_on(opt->port);
    if (!listener.valid()) {
        say("cannot listen on 0.0.0.0:%u: %s", opt->port, strerror(errno));
        return 1;
    }
    say("listening on 0.0.0.0:%u", opt->port);

    for (;;) {
        pollfd fds[2] = {{listener.get(), POLLIN, 0}, {sig_fd.get(), POLLIN, 0}};
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            say("poll failed: %s", strerror(errno));
            return 1;
        }
        if ((fds[1].revents & POLLIN) != 0) {
            say("signal %d, ending", take_signal(sig_fd.get()));
            return 0;
        }
        if ((fds[0].revents & POLLIN) == 0) continue;
        sockaddr_in peer{};
        socklen_t peer_len = sizeof(peer);
        tools::UniqueFd conn(accept4(listener.get(), reinterpret_cast<sockaddr*>(&peer), &peer_len, SOCK_CLOEXEC));
        if (!conn.valid()) continue;
        char addr[INET_ADDRSTRLEN] = "?";
        inet_ntop(AF_INET, &peer.sin_addr, addr, sizeof(addr));
        say("agent connected from %s:%u", addr, ntohs(peer.sin_port));
        if (serve(conn.get(), sig_fd.get(), *opt) == End::kSignal) return 0;
        if (opt->once) return 0;
    }
}
