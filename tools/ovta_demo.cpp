// ovta-demo: the agent at work on a phone-like sandbox.
//
//   ovta-demo [--seconds N]
//
// Enters a private network, lays out the phone under bubblewrap, starts
// wfmgr-sim as the phone's wfmgr and the agent in USB mode (-m 1), then plays
// the PC: ovta-pc sends command 100 with a 4-byte body, which the agent does
// not answer itself, so it goes to wfmgr and the answer (command 101) comes
// back through the bridge. The agent's and wfmgr-sim's logs are shown as they
// come. Ctrl-C (or the end of --seconds) stops the agent with SIGTERM and
// shows its clean stop.
//
// ovta-pc opens a serial device by path, so the PC's end of the phone's
// serial port is relayed to a second pseudo-terminal whose slave ovta-pc
// opens, as it would open a USB serial adapter.
#include <atomic>
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

#include "sandbox.hpp"

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

// Prints the lines that a program logged since the last call.
void show_new_lines(const sandbox::Daemon& program, size_t* shown, const char* who) {
    std::vector<std::string> lines = program.log_lines();
    for (; *shown < lines.size(); ++*shown) printf("%-8s| %s\n", who, lines[*shown].c_str());
    fflush(stdout);
}

std::string binary_dir() {
    char self[4096] = {};
    ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    std::string path(self, n > 0 ? static_cast<size_t>(n) : 0);
    return path.substr(0, path.rfind('/'));
}

int run_pc(const std::string& tool, const std::string& device) {
    pid_t pid = fork();
    if (pid == 0) {
        execl(tool.c_str(), tool.c_str(), "--device", device.c_str(), "--timeout", "5000", "send", "100", "--hex",
              "01020304", static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

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
    std::string why;
    if (!sandbox::enter_private_network(&why)) {
        fprintf(stderr, "ovta-demo: no private network: %s\n", why.c_str());
        return 1;
    }
    // Ctrl-C and SIGTERM are taken here with sigtimedwait, in the main loop.
    sigset_t stop_set;
    sigemptyset(&stop_set);
    sigaddset(&stop_set, SIGINT);
    sigaddset(&stop_set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_set, nullptr);

    const std::string bin = binary_dir();
    sandbox::PhoneSetup setup;
    setup.config = "# factory configuration\namt_relate_path = /amt/\noutput_more_log = 0\n";
    setup.host_dirs = {bin};
    auto phone = sandbox::Phone::create(setup, &why);
    if (!phone) {
        fprintf(stderr, "ovta-demo: phone: %s\n", why.c_str());
        return 1;
    }

    printf("== starting wfmgr-sim (the phone's wfmgr) on port 8030\n");
    auto wfmgr = sandbox::Daemon::start(*phone, bin + "/wfmgr-sim",
                                        {"--amt-path", "/amt/", "--rf-path", "/amt/rf/", "--rftab", "1=rf_table_1.bin"},
                                        &why);
    if (!wfmgr || !wfmgr->wait_for_log("listening", 5000ms)) {
        fprintf(stderr, "ovta-demo: wfmgr-sim did not start: %s\n", why.c_str());
        return 1;
    }
    printf("== starting the agent: ovta-amt -m 1\n");
    auto agent = sandbox::Daemon::start(*phone, {"-m", "1"}, &why);
    if (!agent) {
        fprintf(stderr, "ovta-demo: agent: %s\n", why.c_str());
        return 1;
    }
    size_t agent_shown = 0;
    size_t wfmgr_shown = 0;
    bool started = agent->wait_for_log("handle_start success", 30000ms);
    show_new_lines(*agent, &agent_shown, "agent");
    show_new_lines(*wfmgr, &wfmgr_shown, "wfmgr");
    if (!started) {
        fprintf(stderr, "ovta-demo: the agent did not start\n");
        return 1;
    }

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
    std::thread relay_thread(relay, phone->pc_master(), pc_master);

    printf("== the PC sends command 100 with body 01 02 03 04 (forwarded to wfmgr)\n");
    fflush(stdout);
    int pc_status = run_pc(bin + "/ovta-pc", pc_device);
    std::this_thread::sleep_for(200ms);
    show_new_lines(*agent, &agent_shown, "agent");
    show_new_lines(*wfmgr, &wfmgr_shown, "wfmgr");
    printf("== ovta-pc exit status %d (%s)\n", pc_status,
           pc_status == 0 ? "the answer came back through the bridge" : "no answer");
    printf(seconds < 0 ? "== the agent keeps running; Ctrl-C stops it\n" : "== the agent keeps running for %ld s\n",
           seconds);
    fflush(stdout);

    timespec tick{0, 200 * 1000 * 1000};
    long waited_ms = 0;
    while (agent->running() && (seconds < 0 || waited_ms < seconds * 1000)) {
        if (sigtimedwait(&stop_set, nullptr, &tick) > 0) break;
        waited_ms += 200;
        show_new_lines(*agent, &agent_shown, "agent");
        show_new_lines(*wfmgr, &wfmgr_shown, "wfmgr");
    }
    printf("== stopping the agent with SIGTERM\n");
    agent->signal(SIGTERM);
    std::optional<int> code = agent->wait_exit(15000ms);
    show_new_lines(*agent, &agent_shown, "agent");
    printf("== the agent exited with code %d\n", code ? *code : -1);
    wfmgr->signal(SIGTERM);
    wfmgr->wait_exit(5000ms);
    g_relay_stop = true;
    relay_thread.join();
    close(pc_master);
    close(pc_slave);
    return code && *code == 0 && pc_status == 0 ? 0 : 1;
}
