// ovta-demo: one station's session with the agent on a phone-like sandbox.
//
//   ovta-demo [--seconds N]
//
// Enters a private network, lays out the phone under bubblewrap with an RF
// table file and an amt.bin to serve, starts wfmgr-sim as the phone's wfmgr
// and the agent in USB mode (-m 1). Then it plays the station's PC with
// ovta-pc, one command after the other: enter AMT, version, production date
// and board number written and read back, a test result written and read
// back, a slice of an RF table, the card size. Before that the PC line shows
// the handshake that the agent offers once a second, and the first command
// answers it: the agent switches the charger off (the phone's test charger
// library records the call) and draws the AMT MODE picture on the phone's
// framebuffer (the framebuffer stand-in, tools/fbstub), which the
// demonstration writes as a PNG. Next wfmgr-sim, on SIGUSR1, asks the agent
// for a slice of the RF table and of amt.bin. The agent's and wfmgr-sim's
// logs are shown as they come. Ctrl-C (or the end of --seconds) stops the
// agent and shows its teardown.
//
// Exit status 0 when every command was accepted, both file requests were
// answered and the agent stopped with code 0.
//
// ovta-pc opens a serial device by path, so the PC's end of the phone's
// serial port is relayed to a second pseudo-terminal whose slave ovta-pc
// opens, as it would open a USB serial adapter.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <pty.h>
#include <string>
#include <sys/wait.h>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "sandbox.hpp"
#include "pc/lib/hex_text.hpp"
#include "tools/lib/png_file.hpp"

namespace {

using namespace std::chrono_literals;

std::atomic<bool> g_relay_stop{false};

// Copies bytes both ways between two descriptors until told to stop.
void relay(int a, int b) {
    uint8_t buf[4096];
    while (!g_relay_stop) {
        pollfd p[2] = {{a, POLLIN, 0}, {b, POLLIN, 0}};
        if (poll(p, 2, 50) <= 0) continue;
        for (int i = 0; i < 2; ++i) {
            if (!(p[i].revents & POLLIN)) continue;
            ssize_t n = read(p[i].fd, buf, sizeof(buf));
            if (n > 0) sandbox::write_all(i == 0 ? b : a, {buf, static_cast<size_t>(n)}, 1000ms);
        }
    }
}

// A log line for the terminal: bytes outside printable ASCII, such as those
// of the handshake that the agent logs as text, are shown as \xNN.
std::string printable(const std::string& line) {
    std::string out;
    for (unsigned char c : line) {
        if (c >= 0x20 && c < 0x7F) {
            out.push_back(static_cast<char>(c));
        } else {
            char esc[8];
            snprintf(esc, sizeof(esc), "\\x%02X", c);
            out += esc;
        }
    }
    return out;
}

// Prints the lines that a program logged since the last call.
void show_new_lines(const sandbox::Daemon& program, size_t* shown, const char* who) {
    std::vector<std::string> lines = program.log_lines();
    for (; *shown < lines.size(); ++*shown) printf("%-8s| %s\n", who, printable(lines[*shown]).c_str());
    fflush(stdout);
}

std::string binary_dir() {
    char self[4096] = {};
    ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    std::string path(self, n > 0 ? static_cast<size_t>(n) : 0);
    return path.substr(0, path.rfind('/'));
}

const char* meaning(int status) {
    switch (status) {
        case 0: return "accepted";
        case 1: return "only the pre-response came";
        case 2: return "nothing came";
        case 3: return "usage or device error";
        case 4: return "refused";
        case 5: return "no such station";
        case 6: return "malformed answer";
        default: return "ovta-pc did not run";
    }
}

// The demonstration's files of the phone: an RF table that wfmgr announces
// as table 1, and the AMT file.
std::string rf_table() {
    std::string table = "RF table 1: calibration data.";
    while (table.size() < 256) table.push_back(static_cast<char>(table.size()));
    return table;
}

constexpr char kAmtBin[] = "AMT.BIN: station plan of the demo line";

// The phone's screen: 720 x 1280, video memory for two 32-bit pages.
constexpr int kScreenWidth = 720;
constexpr int kScreenHeight = 1280;
constexpr size_t kVideoMemory = 4u * kScreenWidth * kScreenHeight * 2;
constexpr size_t kSecondPage = 4u * kScreenWidth * kScreenHeight;  // where a driver at yoffset 0 gets the picture

bool give_phone_a_screen(sandbox::Phone& phone) {
    char config[128];
    snprintf(config, sizeof(config), "xres=%d\nyres=%d\nyoffset=0\nsmem_len=%zu\n", kScreenWidth, kScreenHeight,
             kVideoMemory);
    return phone.write_file("/test-record/fb-config", config) &&
           phone.write_file("/test-record/fb-memory", std::string(kVideoMemory, '\0'));
}

// Waits until the agent has shown its picture (the layer switched on again),
// then writes the page it drew as a PNG. Returns the PNG's path, or empty.
std::string picture_as_png(const sandbox::Phone& phone, const std::string& dir) {
    for (int waited = 0; waited < 100; ++waited) {
        std::string requests = phone.read_file("/test-record/fb-requests").value_or("");
        if (requests.find("ZELQAFB_IOCTL_EN_LAYER 1") != std::string::npos) {
            std::string memory = phone.read_file("/test-record/fb-memory").value_or("");
            if (memory.size() < kSecondPage + kScreenWidth * kScreenHeight * 2u) return {};
            std::string png = dir + "/demo-output/amt_mode.png";
            std::span<const uint8_t> page(reinterpret_cast<const uint8_t*>(memory.data()) + kSecondPage,
                                          static_cast<size_t>(kScreenWidth) * kScreenHeight * 2);
            return tools::write_png_rgb565(png, page, kScreenWidth, kScreenHeight) ? png : std::string();
        }
        std::this_thread::sleep_for(100ms);
    }
    return {};
}

class Session {
public:
    Session(std::string bin, std::string device, sandbox::Daemon* agent, sandbox::Daemon* wfmgr)
        : bin_(std::move(bin)), device_(std::move(device)), agent_(agent), wfmgr_(wfmgr) {}

    // Runs ovta-pc with `args`, shows what it printed, the logs it caused
    // and its exit status.
    void pc(const std::string& what, const std::vector<std::string>& args) {
        std::string line = "ovta-pc";
        for (const std::string& a : args) line += " " + a;
        if (!what.empty()) printf("\n== %s\n", what.c_str());
        printf("$ %s\n", line.c_str());
        fflush(stdout);
        const int status = run_pc(args);
        std::this_thread::sleep_for(200ms);
        show_logs();
        printf("== exit status %d: %s\n", status, meaning(status));
        fflush(stdout);
        if (status != 0) all_accepted_ = false;
    }

    void show_logs() {
        show_new_lines(*agent_, &agent_shown_, "agent");
        show_new_lines(*wfmgr_, &wfmgr_shown_, "wfmgr");
    }

    bool all_accepted() const { return all_accepted_; }

private:
    // ovta-pc's output, each line marked, and its exit status.
    int run_pc(const std::vector<std::string>& args) {
        int out[2];
        if (pipe(out) != 0) return -1;
        std::vector<std::string> argv_text = {bin_ + "/ovta-pc", "--device", device_, "--timeout", "5000"};
        argv_text.insert(argv_text.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (std::string& a : argv_text) argv.push_back(a.data());
        argv.push_back(nullptr);
        pid_t pid = fork();
        if (pid == 0) {
            // The demonstration takes Ctrl-C in its main loop; ovta-pc ends on it.
            sigset_t all;
            sigfillset(&all);
            sigprocmask(SIG_UNBLOCK, &all, nullptr);
            dup2(out[1], STDOUT_FILENO);
            dup2(out[1], STDERR_FILENO);
            close(out[0]);
            close(out[1]);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(out[1]);
        std::string text = sandbox::read_to_end(out[0]);
        close(out[0]);
        size_t start = 0;
        while (start < text.size()) {
            size_t end = text.find('\n', start);
            if (end == std::string::npos) end = text.size();
            printf("%-8s| %.*s\n", "pc", static_cast<int>(end - start), text.c_str() + start);
            start = end + 1;
        }
        int status = 0;
        if (pid < 0 || waitpid(pid, &status, 0) < 0) return -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    std::string bin_;
    std::string device_;
    sandbox::Daemon* agent_;
    sandbox::Daemon* wfmgr_;
    size_t agent_shown_ = 0;
    size_t wfmgr_shown_ = 0;
    bool all_accepted_ = true;
};

}  // namespace

int main(int argc, char** argv) {
    long seconds = -1;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--seconds") == 0 && i + 1 < argc) {
            seconds = strtol(argv[++i], nullptr, 10);
        } else {
            fprintf(stderr, "usage: %s [--seconds N]\n", argv[0]);
            return 2;
        }
    }
    // Ctrl-C and SIGTERM are taken here with sigtimedwait, in the main loop.
    sigset_t stop_set;
    if (!sandbox::start_phone_program("ovta-demo", &stop_set)) return 1;
    std::string why;

    const std::string bin = binary_dir();
    sandbox::PhoneSetup setup;
    setup.config = "# factory configuration\namt_relate_path = /amt/\noutput_more_log = 0\n";
    setup.host_dirs = {bin};
    auto phone = sandbox::Phone::create(setup, &why);
    if (!phone || !phone->write_file("/amt/rf/rf_table_1.bin", rf_table()) ||
        !phone->write_file("/amt/amt.bin", kAmtBin) || !give_phone_a_screen(*phone)) {
        fprintf(stderr, "ovta-demo: phone: %s\n", phone ? "cannot write its files" : why.c_str());
        return 1;
    }
    printf("== the phone: /amt/rf/rf_table_1.bin (%zu bytes), /amt/amt.bin (%zu bytes), amt_relate_path /amt/,\n"
           "   a %dx%d framebuffer, the USB gadget CONFIGURED, a charger library\n",
           rf_table().size(), strlen(kAmtBin), kScreenWidth, kScreenHeight);

    printf("== starting wfmgr-sim (the phone's wfmgr) on port 8030\n");
    auto wfmgr = sandbox::Daemon::start(*phone, bin + "/wfmgr-sim",
                                        {"--amt-path", "/amt/", "--rf-path", "/amt/rf/", "--rftab", "1=rf_table_1.bin",
                                         "--hold-requests", "--info-read", "1", "0", "16", "--amt-read", "0", "16"},
                                        &why);
    if (!wfmgr || !wfmgr->wait_for_log("listening", 20000ms)) {
        if (wfmgr) {
            why = wfmgr->running() ? "no \"listening\" line in 20 s" : "it ended";
            for (const std::string& l : wfmgr->log_lines()) why += "\n  " + l;
        }
        fprintf(stderr, "ovta-demo: wfmgr-sim did not start: %s\n", why.c_str());
        return 1;
    }
    printf("== starting the agent: ovta-amt -m 1\n");
    // The framebuffer stand-in is preloaded into the agent alone. A sanitizer
    // build would refuse a library loaded ahead of its runtime.
    sandbox::DaemonOptions agent_options;
    const char* asan = getenv("ASAN_OPTIONS");
    agent_options.env = {{"LD_PRELOAD", OVTA_FBSTUB_PATH},
                         {"OVTA_FBSTUB_DIR", "/test-record"},
                         {"ASAN_OPTIONS", std::string(asan && *asan ? std::string(asan) + ":" : "") +
                                              "verify_asan_link_order=0"}};
    auto agent = sandbox::Daemon::start(*phone, bin + "/ovta-amt", {"-m", "1"}, &why, agent_options);
    if (!agent) {
        fprintf(stderr, "ovta-demo: agent: %s\n", why.c_str());
        return 1;
    }
    bool started = agent->wait_for_log("handle_start success", 30000ms);
    // wfmgr-sim's lines about the connection come through its own pipe; wait
    // for them so that the log reads in the order things happened.
    if (started) wfmgr->wait_for_log("send res info indication", 5000ms);

    int pc_master = -1;
    int pc_slave = -1;
    if (openpty(&pc_master, &pc_slave, nullptr, nullptr, nullptr) != 0) {
        perror("ovta-demo: openpty");
        return 1;
    }
    termios raw{};
    tcgetattr(pc_master, &raw);
    cfmakeraw(&raw);
    tcsetattr(pc_master, TCSANOW, &raw);
    std::string pc_device = ttyname(pc_slave);

    Session session(bin, pc_device, agent.get(), wfmgr.get());
    session.show_logs();
    if (started) {
        // The agent offers the PC its handshake once a second from CONFIGURED
        // on; the PC's first bytes answer it. The first offer, as the PC sees it:
        printf("\n== the agent offers the PC its handshake once a second; on the PC line:\n");
        fflush(stdout);
        std::optional<sandbox::Bytes> offer = sandbox::read_exact(phone->pc_master(), 5, 3000ms);
        session.show_logs();
        printf("pc      | %s\n", offer ? tools::to_hex(*offer).c_str() : "(nothing within 3 s)");
    }
    std::thread relay_thread(relay, phone->pc_master(), pc_master);
    bool files_served = false;
    std::string png;
    if (started) {
        printf("\n== the station's PC; its first command answers the handshake\n");
        session.pc("enter AMT, wfmgr loads the name", {"enter-amt", "demo_station"});
        session.pc("software version", {"version"});
        session.pc("production date, written and read back", {"date", "set", "2022-08-05"});
        session.pc("", {"date", "get"});
        session.pc("board number, written and read back", {"board", "set", "SN-DEMO-0042"});
        session.pc("", {"board", "get"});
        session.pc("test result of station 12, written and read back", {"result", "set", "12", "1", "ok"});
        session.pc("", {"result", "get", "12"});
        session.pc("a slice of RF table 1", {"rf", "read", "1", "0", "32"});
        session.pc("memory card", {"card"});

        printf("\n== after the handshake: the charger switched off, and the AMT MODE picture on the screen\n");
        for (const std::string& call : phone->charger_calls()) printf("phone   | charger library called: %s\n", call.c_str());
        png = picture_as_png(*phone, bin);
        session.show_logs();
        printf("== %s%s\n", png.empty() ? "no picture was shown" : "the page the agent drew: ", png.c_str());
        fflush(stdout);

        printf("\n== wfmgr asks the agent for 16 bytes of RF table 1 and of amt.bin (SIGUSR1 to wfmgr-sim)\n");
        fflush(stdout);
        wfmgr->signal(SIGUSR1);
        files_served = wfmgr->wait_for_log("recv info read confirm", 5000ms) &&
                       wfmgr->wait_for_log("(file read confirm, 154)", 5000ms);
        std::this_thread::sleep_for(200ms);
        session.show_logs();
        printf("== %s\n", files_served ? "both requests answered" : "a request was not answered");
    } else {
        fprintf(stderr, "ovta-demo: the agent did not start\n");
    }

    if (started) {
        printf(seconds < 0 ? "\n== the agent keeps running; Ctrl-C stops it\n"
                           : "\n== the agent keeps running for %ld s\n",
               seconds);
        fflush(stdout);
    }
    timespec tick{0, 200 * 1000 * 1000};
    long waited_ms = 0;
    int stop_signal = 0;
    while (started && agent->running() && (seconds < 0 || waited_ms < seconds * 1000)) {
        stop_signal = sigtimedwait(&stop_set, nullptr, &tick);
        if (stop_signal > 0) break;
        waited_ms += 200;
        session.show_logs();
    }
    if (stop_signal == SIGINT) {
        printf("\n== Ctrl-C: passed on to the agent, which stops by its own clean stop\n");
        agent->signal(SIGINT);
    } else {
        printf("\n== stopping the agent with SIGTERM\n");
        agent->signal(SIGTERM);
    }
    std::optional<int> code = agent->wait_exit(15000ms);
    session.show_logs();
    printf("== the agent exited with code %d\n", code ? *code : -1);
    wfmgr->signal(SIGTERM);
    wfmgr->wait_exit(5000ms);
    g_relay_stop = true;
    relay_thread.join();
    close(pc_master);
    close(pc_slave);
    return started && code && *code == 0 && session.all_accepted() && files_served && !png.empty() ? 0 : 1;
}
