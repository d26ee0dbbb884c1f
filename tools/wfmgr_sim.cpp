// wfmgr-sim: a stand-in for the phone's wfmgr service, for tests and demos.
// `wfmgr-sim --help` shows its options.
//
// Listens on 0.0.0.0 (port 8030 by default) and serves one agent connection
// at a time. On connect it tells the agent its two base directories (relate
// info indication) and its RF table list (res info indication), and then
// makes the file requests given on its command line, in their order. It
// answers a load request with a load confirm carrying --wf-id and
// --load-error, and each forwarded PC command with an info transfer confirm
// that echoes the command's body under response number cmd + 1. Every message
// in and out is logged, decoded, on one line of stderr; the data of the
// agent's read confirms can be kept in a file.
//
// SIGUSR1 makes the file requests again (with --hold-requests, only then).
// SIGTERM and SIGINT end it with status 0; with --once, so does the agent
// closing its connection.
//
// One thread does everything: a poll over the listener or the connection and
// a signalfd for the three signals.
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <netinet/in.h>
#include <optional>
#include <poll.h>
#include <string>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "protocol/wf_msg.hpp"
#include "pc/lib/hex_text.hpp"
#include "process/unique_fd.hpp"
#include "tools/lib/wf_messages.hpp"

namespace {

// A file request to make of the agent.
struct FileRequest {
    enum class Kind { kInfoRead, kModify, kAmtRead, kConfirmModify } kind = Kind::kInfoRead;
    uint32_t table_type = 0;
    uint32_t offset = 0;
    uint32_t len = 0;           // reads
    std::vector<uint8_t> data;  // modifies
};

struct FileCloser {
    void operator()(FILE* f) const { fclose(f); }
};

struct Options {
    uint16_t port = 8030;
    uint32_t wf_id = 7;
    uint8_t load_error = 0;
    std::string amt_path;
    std::string rf_path;
    std::vector<tools::RftabRow> rftab;
    std::vector<FileRequest> requests;
    bool hold_requests = false;
    std::string out_path;
    bool once = false;
    bool help = false;
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

void usage(FILE* to) {
    fprintf(to,
            "usage: wfmgr-sim [--port N] [--wf-id N] [--load-error N] [--amt-path PATH] [--rf-path PATH]\n"
            "                 [--rftab TYPE=NAME]... [REQUEST]... [--hold-requests] [--out FILE] [--once]\n"
            "\n"
            "  --port N            listen on port N (default 8030)\n"
            "  --wf-id N           the wf_id of load confirms and of the requests below (default 7)\n"
            "  --load-error N      error_cause of load confirms, 0 to 255 (default 0: loaded)\n"
            "  --amt-path PATH     amt_file_path of the relate info indication\n"
            "  --rf-path PATH      rf_code_file_path of the relate info indication\n"
            "  --rftab TYPE=NAME   a row of the RF table list\n"
            "  --once              end when the agent closes its connection\n"
            "\n"
            "File requests, made after the two indications, in the order given:\n"
            "  --info-read TABLE OFFSET LEN         0x40007: read LEN bytes of RF table TABLE (LEN up to %u)\n"
            "  --modify TABLE OFFSET DATA           0x40005: write DATA into RF table TABLE\n"
            "  --amt-read OFFSET LEN                0x40004 with 153: read LEN bytes of amt.bin\n"
            "  --confirm-modify TABLE OFFSET DATA   0x40004 with 155: write into RF table TABLE; the agent\n"
            "                                       writes the word 155 (9B 00 00 00) first, then DATA\n"
            "  DATA is hex (\"0102ff\") or @FILE for the bytes of FILE.\n"
            "  --hold-requests     make them only on SIGUSR1, not on connect; SIGUSR1 always makes them again\n"
            "  --out FILE          keep the data of every read confirm in FILE, in the order they come\n"
            "\n"
            "  e.g. wfmgr-sim --rf-path /amt/rf/ --rftab 1=rf_table_1.bin --info-read 1 0 16\n",
            tools::kFileReadMax);
}

std::optional<std::vector<uint8_t>> parse_data(const std::string& text) {
    if (!text.empty() && text[0] == '@') {
        std::ifstream in(text.substr(1), std::ios::binary);
        if (!in) {
            say("cannot read %s: %s", text.c_str() + 1, strerror(errno));
            return std::nullopt;
        }
        // One byte more than any request carries is enough to refuse the file.
        std::vector<uint8_t> data(tools::kFileModifyMax + 1);
        in.read(reinterpret_cast<char*>(data.data()), static_cast<std::streamsize>(data.size()));
        data.resize(static_cast<size_t>(in.gcount()));
        return data;
    }
    auto data = tools::parse_hex(text);
    if (!data) say("DATA is hex or @FILE: %s", text.c_str());
    return data;
}

std::optional<unsigned long> parse_number(const char* text, unsigned long max) {
    if (text == nullptr || *text == '\0' || *text == '-') return std::nullopt;
    errno = 0;
    char* end = nullptr;
    unsigned long v = strtoul(text, &end, 0);
    if (errno != 0 || *end != '\0' || v > max) return std::nullopt;
    return v;
}

// A file request and its arguments, which stand at argv[*i + 1] on; *i
// moves to the last of them.
std::optional<FileRequest> parse_request(const std::string& arg, int argc, char** argv, int* i) {
    FileRequest r;
    using Kind = FileRequest::Kind;
    if (arg == "--info-read") r.kind = Kind::kInfoRead;
    else if (arg == "--modify") r.kind = Kind::kModify;
    else if (arg == "--amt-read") r.kind = Kind::kAmtRead;
    else r.kind = Kind::kConfirmModify;
    const int count = r.kind == Kind::kAmtRead ? 2 : 3;
    if (*i + count >= argc) {
        say("%s takes %d arguments", arg.c_str(), count);
        return std::nullopt;
    }
    char** a = argv + *i + 1;
    *i += count;
    std::optional<unsigned long> table = r.kind == Kind::kAmtRead ? 0ul : parse_number(*a++, 0xFFFFFFFFul);
    std::optional<unsigned long> offset = parse_number(*a++, 0xFFFFFFFFul);
    if (!table || !offset) {
        say("%s: TABLE and OFFSET are numbers from 0 to 4294967295", arg.c_str());
        return std::nullopt;
    }
    r.table_type = static_cast<uint32_t>(*table);
    r.offset = static_cast<uint32_t>(*offset);
    if (r.kind == Kind::kInfoRead || r.kind == Kind::kAmtRead) {
        std::optional<unsigned long> len = parse_number(*a, tools::kFileReadMax);
        if (!len) {
            say("%s: LEN is a number from 0 to %u", arg.c_str(), tools::kFileReadMax);
            return std::nullopt;
        }
        r.len = static_cast<uint32_t>(*len);
        return r;
    }
    std::optional<std::vector<uint8_t>> data = parse_data(*a);
    if (!data) return std::nullopt;
    const size_t max = tools::kFileModifyMax - (r.kind == Kind::kConfirmModify ? 4 : 0);
    if (data->size() > max) {
        say("%s: DATA holds at most %zu bytes, this one %zu", arg.c_str(), max, data->size());
        return std::nullopt;
    }
    r.data = std::move(*data);
    return r;
}

std::optional<Options> parse_args(int argc, char** argv) {
    Options opt;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (arg == "--help" || arg == "-h") {
            opt.help = true;
            continue;
        }
        if (arg == "--once" || arg == "--hold-requests") {
            (arg == "--once" ? opt.once : opt.hold_requests) = true;
            continue;
        }
        if (arg == "--info-read" || arg == "--modify" || arg == "--amt-read" || arg == "--confirm-modify") {
            std::optional<FileRequest> r = parse_request(arg, argc, argv, &i);
            if (!r) return std::nullopt;
            opt.requests.push_back(std::move(*r));
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
        } else if (arg == "--out") {
            opt.out_path = value;
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
    size_t done = 0;
    while (done < msg.size()) {
        const ssize_t n = write(fd, msg.data() + done, msg.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno == EAGAIN) {
            pollfd p{fd, POLLOUT, 0};
            poll(&p, 1, -1);
            continue;
        }
        if (n <= 0) {
            say("send failed: %s", strerror(errno));
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

std::vector<uint8_t> build_request(const FileRequest& r, uint32_t wf_id) {
    switch (r.kind) {
        case FileRequest::Kind::kInfoRead: return tools::build_info_read_req(wf_id, r.table_type, r.offset, r.len);
        case FileRequest::Kind::kModify: return tools::build_modify_req(wf_id, r.table_type, r.offset, r.data);
        case FileRequest::Kind::kAmtRead: return tools::build_amt_read_req(wf_id, r.offset, r.len);
        case FileRequest::Kind::kConfirmModify:
            return tools::build_confirm_modify_req(wf_id, r.table_type, r.offset, r.data);
    }
    return {};
}

// Makes the file requests of the command line. False when the connection is lost.
bool make_requests(int fd, const Options& opt) {
    if (opt.requests.empty()) say("no file requests to make");
    for (const FileRequest& r : opt.requests) {
        if (!send_msg(fd, build_request(r, opt.wf_id))) return false;
    }
    return true;
}

// Where the data of read confirms is kept, when --out asks for it.
class Keeper {
public:
    bool open(const std::string& path) {
        path_ = path;
        file_.reset(fopen(path.c_str(), "wb"));
        if (!file_) say("cannot write %s: %s", path.c_str(), strerror(errno));
        return file_ != nullptr;
    }
    void keep(const tools::FileConfirm& c) {
        if (!file_ || !c.is_read()) return;
        if (fwrite(c.data.data(), 1, c.data.size(), file_.get()) != c.data.size() || fflush(file_.get()) != 0) {
            say("cannot write %s: %s", path_.c_str(), strerror(errno));
            return;
        }
        kept_ += c.data.size();
        say("kept %zu bytes in %s, %zu in all", c.data.size(), path_.c_str(), kept_);
    }

private:
    std::string path_;
    std::unique_ptr<FILE, FileCloser> file_;
    size_t kept_ = 0;
};

// Answers one message from the agent. False when the connection is lost.
bool answer(int fd, const std::vector<uint8_t>& msg, const Options& opt, Keeper* keeper) {
    if (std::optional<tools::FileConfirm> c = tools::decode_file_confirm(msg)) {
        // A confirm of the agent's file service wants no answer.
        keeper->keep(*c);
        return true;
    }
    switch (tools::wf_msg_id(msg)) {
        case kWfLoadReq:
            return send_msg(fd, tools::build_load_cnf(opt.wf_id, opt.load_error));
        case kWfInfoTransReq: {
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

UniqueFd listen_on(uint16_t port) {
    UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.valid()) return fd;
    int one = 1;
    setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    addr.sin_port = htons(port);
    if (bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || listen(fd.get(), 4) != 0) {
        return UniqueFd();
    }
    return fd;
}

// SIGTERM, SIGINT and SIGUSR1 arrive as readable bytes on this descriptor
// instead of interrupting the program wherever it is.
UniqueFd signal_fd() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGUSR1);
    if (sigprocmask(SIG_BLOCK, &set, nullptr) != 0) return UniqueFd();
    return UniqueFd(signalfd(-1, &set, SFD_CLOEXEC));
}

int take_signal(int sig_fd) {
    signalfd_siginfo info{};
    if (read(sig_fd, &info, sizeof(info)) != static_cast<ssize_t>(sizeof(info))) return 0;
    return static_cast<int>(info.ssi_signo);
}

enum class End { kClosed, kSignal };

// Serves one agent connection until it ends or an exit signal comes.
End serve(int conn, int sig_fd, const Options& opt, Keeper* keeper) {
    tools::RelateInfo relate;
    relate.wf_id = opt.wf_id;
    relate.wf_name = "wfmgr-sim";
    relate.amt_file_path = opt.amt_path;
    relate.rf_code_file_path = opt.rf_path;
    if (!send_msg(conn, tools::build_relate_info_ind(relate))) return End::kClosed;
    if (!send_msg(conn, tools::build_res_info_ind(opt.rftab))) return End::kClosed;
    if (!opt.hold_requests && !make_requests(conn, opt)) return End::kClosed;

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
            const int sig = take_signal(sig_fd);
            if (sig != SIGUSR1) {
                say("signal %d, ending", sig);
                return End::kSignal;
            }
            say("SIGUSR1: making the file requests");
            if (!make_requests(conn, opt)) return End::kClosed;
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
            if (!answer(conn, *msg, opt, keeper)) return End::kClosed;
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
        usage(stderr);
        return 2;
    }
    if (opt->help) {
        usage(stdout);
        return 0;
    }
    Keeper keeper;
    if (!opt->out_path.empty() && !keeper.open(opt->out_path)) return 1;
    signal(SIGPIPE, SIG_IGN);
    UniqueFd sig_fd = signal_fd();
    if (!sig_fd.valid()) {
        say("cannot take the signals: %s", strerror(errno));
        return 1;
    }
    UniqueFd listener = listen_on(opt->port);
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
            const int sig = take_signal(sig_fd.get());
            if (sig != SIGUSR1) {
                say("signal %d, ending", sig);
                return 0;
            }
            say("SIGUSR1: no agent connected, no file requests to make");
        }
        if ((fds[0].revents & POLLIN) == 0) continue;
        sockaddr_in peer{};
        socklen_t peer_len = sizeof(peer);
        UniqueFd conn(accept4(listener.get(), reinterpret_cast<sockaddr*>(&peer), &peer_len, SOCK_CLOEXEC));
        if (!conn.valid()) continue;
        char addr[INET_ADDRSTRLEN] = "?";
        inet_ntop(AF_INET, &peer.sin_addr, addr, sizeof(addr));
        say("agent connected from %s:%u", addr, ntohs(peer.sin_port));
        if (serve(conn.get(), sig_fd.get(), *opt, &keeper) == End::kSignal) return 0;
        if (opt->once) return 0;
    }
}
