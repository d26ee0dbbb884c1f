// ovta-fixture: a station's fixture of phones on one host, for the station's
// demonstration and benchmark.
//
//   ovta-fixture [--phones N] [--table-bytes N] [--runs K] [--time] -- PROGRAM ARGS...
//
// Enters a private network and lays out N phones (4 by default), each in a
// network of its own with an RF table 1 of --table-bytes bytes (64 by
// default: 00 01 02 ...), its own wfmgr-sim and its agent in USB mode with
// the handshake answered (tools/sandbox/sandbox_fixture.hpp). Then it runs
// PROGRAM with ARGS and one "--device PATH" per phone, in the foreground on
// this terminal, K times (1 by default); --time reports each run's wall time
// and the program's processor time on stderr as "run I: S s, cpu C s". Ctrl-C reaches the program; the fixture waits
// for it, stops the phones and exits with the program's last status.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "sandbox.hpp"

namespace {

std::string binary_dir() {
    char self[4096] = {};
    ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    std::string path(self, n > 0 ? static_cast<size_t>(n) : 0);
    return path.substr(0, path.rfind('/'));
}

// Runs the program to its end; `cpu` gets its user and system time in seconds.
int run(const std::vector<std::string>& args, double* cpu) {
    pid_t pid = fork();
    if (pid == 0) {
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        std::vector<char*> argv;
        for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        fprintf(stderr, "ovta-fixture: cannot run %s: %s\n", argv[0], strerror(errno));
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    if (pid < 0 || wait4(pid, &status, 0, &usage) != pid) return 127;
    *cpu = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

int main(int argc, char** argv) {
    size_t phones = 4;
    size_t table_bytes = 64;
    int runs = 1;
    bool timed = false;
    std::vector<std::string> command;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--") {
            command.assign(argv + i + 1, argv + argc);
            break;
        } else if (arg == "--phones" && i + 1 < argc) {
            phones = strtoul(argv[++i], nullptr, 10);
        } else if (arg == "--table-bytes" && i + 1 < argc) {
            table_bytes = strtoul(argv[++i], nullptr, 10);
        } else if (arg == "--runs" && i + 1 < argc) {
            runs = atoi(argv[++i]);
        } else if (arg == "--time") {
            timed = true;
        } else {
            command.clear();
            break;
        }
    }
    if (command.empty() || phones == 0 || phones > 64 || runs < 1) {
        fprintf(stderr, "usage: ovta-fixture [--phones N] [--table-bytes N] [--runs K] [--time] -- PROGRAM ARGS...\n");
        return 2;
    }
    // Ctrl-C is the program's; the fixture only waits for it to end.
    sigset_t stop_set;
    if (!sandbox::start_phone_program("ovta-fixture", &stop_set)) return 1;

    const std::string bin = binary_dir();
    sandbox::FixtureSetup setup;
    setup.phone.config = "amt_relate_path = /amt/\n";
    setup.phone.host_dirs = {bin};
    std::string table;
    for (size_t i = 0; i < table_bytes; ++i) table.push_back(static_cast<char>(i));
    setup.files = {{"/amt/rf/rf_table_1.bin", table}};
    setup.agent = bin + "/ovta-amt";
    setup.wfmgr_sim = bin + "/wfmgr-sim";
    setup.wfmgr_args = {"--amt-path", "/amt/", "--rf-path", "/amt/rf/", "--rftab", "1=rf_table_1.bin"};

    fprintf(stderr, "ovta-fixture: laying out %zu phones\n", phones);
    std::vector<std::unique_ptr<sandbox::FixturePhone>> fixture(phones);
    std::vector<std::string> whys(phones);
    {
        std::vector<std::thread> starters;
        for (size_t i = 0; i < phones; ++i) {
            starters.emplace_back([&, i] { fixture[i] = sandbox::FixturePhone::start(setup, &whys[i]); });
        }
        for (std::thread& t : starters) t.join();
    }
    for (size_t i = 0; i < phones; ++i) {
        if (!fixture[i]) {
            fprintf(stderr, "ovta-fixture: phone %zu did not come up: %s\n", i + 1, whys[i].c_str());
            return 1;
        }
    }
    for (auto& f : fixture) command.insert(command.end(), {"--device", f->device()});
    int status = 0;
    for (int r = 1; r <= runs; ++r) {
        const auto start = std::chrono::steady_clock::now();
        double cpu = 0;
        status = run(command, &cpu);
        if (timed) {
            fprintf(stderr, "run %d: %.3f s, cpu %.3f s\n", r,
                    std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), cpu);
        }
    }
    fprintf(stderr, "ovta-fixture: stopping the phones\n");
    fixture.clear();
    return status;
}
