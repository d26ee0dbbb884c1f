// ovta-bench-tcp-echo: the far end of the agent's wfmgr link, or of socat's
// TCP side, for the line benchmark.
//
//   ovta-bench-tcp-echo --port N --format wfmgr|pc [--rf-path DIR --rftab TYPE=NAME]
//
// Serves every connection on a process of its own (a forked child that dies
// with its parent) and answers each request at once, in one write:
//   wfmgr  reads WfMsgs; answers an info transfer request 0x40003 whose body
//          starts with cmd by an info transfer confirm 0x40004 with the body
//          cmd + 1, kEchoMark (the agent turns it into a 24-byte frame). With
//          --rf-path it first tells the agent its directories and one RF
//          table row, as wfmgr does on connect.
//   pc     reads PcFrames (what socat relays from the pseudo-terminal) and
//          answers each by the pre-response and a 24-byte frame cmd + 1,
//          kEchoMark: the same 40 bytes the PC gets from the agent.
#include <arpa/inet.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <vector>

#include "peer_io.hpp"

namespace {

struct Options {
    uint16_t port = 8030;
    bool pc_format = false;
    std::string rf_path;
    uint16_t rftab_type = 0;
    std::string rftab_name;
};

constexpr uint32_t kInfoTransReq = 0x40003;
constexpr uint32_t kInfoTransCnf = 0x40004;
constexpr uint32_t kRelateInfoInd = 0x4000d;
constexpr uint32_t kResInfoInd = 0x4000e;
constexpr uint32_t kWfMsgMax = 65536;

void wf_header(uint8_t* m, uint32_t total_len, uint32_t wf_id, uint32_t msg_id) {
    peer::put_le32(m, total_len);
    peer::put_le32(m + 4, wf_id);
    peer::put_le32(m + 8, 0xFFFFFFFFu);
    peer::put_le32(m + 12, msg_id);
    peer::put_le32(m + 16, total_len - 20);
}

// The relate info indication (amt_file_path at 220, rf_code_file_path at 380)
// and the res info indication with one row (table_type at 24, name at 32).
bool send_indications(int fd, const Options& o) {
    uint8_t relate[540] = {};
    wf_header(relate, sizeof(relate), 7, kRelateInfoInd);
    snprintf(reinterpret_cast<char*>(relate + 220), 160, "%s", "/amt/");
    snprintf(reinterpret_cast<char*>(relate + 380), 160, "%s", o.rf_path.c_str());
    uint8_t res[24 + 72] = {};
    wf_header(res, sizeof(res), 7, kResInfoInd);
    peer::put_le32(res + 20, 72);
    res[24] = static_cast<uint8_t>(o.rftab_type);
    res[25] = static_cast<uint8_t>(o.rftab_type >> 8);
    snprintf(reinterpret_cast<char*>(res + 32), 64, "%s", o.rftab_name.c_str());
    return peer::write_all(fd, relate, sizeof(relate)) && peer::write_all(fd, res, sizeof(res));
}

void serve_wfmgr(int fd, const Options& o) {
    if (!o.rf_path.empty() && !send_indications(fd, o)) return;
    peer::Reader in(fd);
    std::vector<uint8_t> msg(kWfMsgMax);
    uint8_t reply[28];
    for (;;) {
        if (!in.read_exact(msg.data(), 20)) return;
        uint32_t total = peer::get_le32(msg.data());
        if (total < 20 || total > kWfMsgMax) return;  // out of step: nothing sensible follows
        if (!in.read_exact(msg.data() + 20, total - 20)) return;
        if (peer::get_le32(msg.data() + 12) != kInfoTransReq || peer::get_le32(msg.data() + 16) < 4) continue;
        wf_header(reply, sizeof(reply), peer::get_le32(msg.data() + 4), kInfoTransCnf);
        peer::put_le32(reply + 20, peer::get_le32(msg.data() + 20) + 1);
        peer::put_le32(reply + 24, peer::kEchoMark);
        if (!peer::write_all(fd, reply, sizeof(reply))) return;
    }
}

void serve_pc(int fd) {
    peer::Reader in(fd);
    std::vector<uint8_t> frame(peer::kFrameLenMax + 8);
    uint8_t reply[16 + 24];
    memcpy(reply, peer::kPreResponse, 16);
    for (;;) {
        if (in.read_pc_frame(frame.data()) == 0) return;
        peer::put_le32(reply + 16 + 16, peer::kEchoMark);
        peer::finish_response(reply + 16, peer::get_le32(frame.data() + 12) + 1, 4);
        if (!peer::write_all(fd, reply, sizeof(reply))) return;
    }
}

bool parse(int argc, char** argv, Options* o) {
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (i + 1 >= argc) return false;
        std::string v = argv[++i];
        if (a == "--port") {
            o->port = static_cast<uint16_t>(strtoul(v.c_str(), nullptr, 10));
        } else if (a == "--format") {
            if (v != "wfmgr" && v != "pc") return false;
            o->pc_format = v == "pc";
        } else if (a == "--rf-path") {
            o->rf_path = v;
        } else if (a == "--rftab") {
            size_t eq = v.find('=');
            if (eq == std::string::npos) return false;
            o->rftab_type = static_cast<uint16_t>(strtoul(v.substr(0, eq).c_str(), nullptr, 10));
            o->rftab_name = v.substr(eq + 1);
        } else {
            return false;
        }
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    if (!parse(argc, argv, &o)) {
        fprintf(stderr, "usage: %s --port N --format wfmgr|pc [--rf-path DIR --rftab TYPE=NAME]\n", argv[0]);
        return 2;
    }
    signal(SIGCHLD, SIG_IGN);  // children reap themselves
    signal(SIGPIPE, SIG_IGN);
    int lfd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    setsockopt(lfd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(o.port);
    if (lfd < 0 || bind(lfd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || listen(lfd, 16) != 0) {
        perror("listen");
        return 1;
    }
    fprintf(stderr, "listening on %u\n", o.port);
    for (;;) {
        int fd = accept4(lfd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
        pid_t pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            close(lfd);
            if (o.pc_format) {
                serve_pc(fd);
            } else {
                serve_wfmgr(fd, o);
            }
            _exit(0);
        }
        close(fd);
    }
}
