// ovta-fixture: a station's fixture of phones on one host, for the station's
// demonstration, benchmark and end-to-end tests. Phones can be taken off a
// slot and fresh ones put on, on a schedule, on a signal or at a command.
//
//   ovta-fixture [OPTIONS] -- PROGRAM ARGS...
//
//   --phones N            slots, one phone on each at the start (4; up to 64)
//   --table-bytes N       RF table 1 of every phone: N bytes 00 01 02 ... (64)
//   --dir DIR             the fixture's folder (below); kept. Without it a
//                         temporary one, removed at the end
//   --swap-every S[,S..]  a fresh phone every S seconds (fractions allowed),
//                         one value per slot, the last one for the rest. A
//                         single value staggers the slots: slot N's first swap
//                         comes (N-1)/PHONES of a period later than slot 1's
//   --swap-gap S          a slot stays empty S seconds between phones (0.5)
//   --pull-on SLOT:CMD    the first phone of SLOT that gets a frame with
//                         command CMD is pulled before the frame reaches it:
//                         a phone pulled in the middle of a plan. Repeatable
//   --odd-phone SLOT:K    slot SLOT's K-th phone (1 is the first) gets an RF
//                         table 1 of other bytes (FF FE FD ...): a plan that
//                         checks the table fails on it while it answers.
//                         Repeatable
//   --fault KIND:P[@SLOT] P percent of the phones (of SLOT alone with @SLOT)
//                         come with a fault: rf (RF table 1 of other bytes:
//                         a check of the table fails), card (no memory card),
//                         wfmgr (a wfmgr that refuses to load the station's
//                         program: enter-amt fails). Repeatable; a phone has
//                         one fault at most, drawn per phone from --seed
//   --seed N              the draw of the faults (1): the same seed plants
//                         the same faults in the same phones of each slot
//   --swap-on-verdict     a phone is taken off half a second after it holds
//                         a verdict (--swap-every stays as the latest time)
//   --phones-per-slot K   after K phones a slot stays empty; once every slot
//                         is, PROGRAM gets SIGTERM (a day of K phones a slot)
//   --station-handshake   the station answers each agent's handshake offer
//                         (AA BB CC DD 7F, once a second for 20 s); otherwise
//                         the fixture does and the line carries frames only
//   --runs K              run PROGRAM K times (1)
//   --time                each run's wall and processor time on stderr,
//                         "run I: S s, cpu C s"
//
// Each phone is laid out in a network of its own, with its own wfmgr-sim and
// its agent in USB mode (tools/sandbox/sandbox_fixture.hpp). PROGRAM runs in
// the foreground on this terminal with ARGS and one "--device DIR/slot-N/tty"
// per slot: a path that stays while phones come and go.
//
// Taking a phone off (a swap) is what a USB unplug does: DIR/slot-N/tty
// disappears and the line hangs up at once (an open descriptor reads EIO and
// polls POLLHUP), even in the middle of a plan; the phone's programs stop.
// After the gap a fresh phone (a new agent, fresh stores: no test results, no
// board number, no production date) comes on and the path comes back.
//
// Signals: SIGUSR1 swaps the slots listed in DIR/swap (slot numbers parted
// by blanks; the file is removed once read), or, without that file, the next
// slot in turn (1, 2, ..., PHONES, 1, ...):
//
//     echo 3 > DIR/swap; kill -USR1 $(pidof ovta-fixture)
//
// SIGTERM is passed on to PROGRAM, and no further run starts. Ctrl-C reaches
// PROGRAM from the terminal. The fixture waits for PROGRAM, takes every phone
// off and exits with PROGRAM's last status (2 for bad options, 1 when a phone
// did not come up at the start).
//
// The folder (tools/sandbox/sandbox_slot.hpp), every phone kept for good:
//
//   DIR/slot-N/tty                     the slot's line, while a phone is on
//   DIR/slot-N/phone-K/amt/            the stores of slot N's K-th phone:
//                                      test_result.txt, board_no.txt,
//                                      product_date.txt, rf/rf_table_1.bin
//   DIR/slot-N/phone-K/agent.log       its agent's log, once it is off
//   DIR/phones.log                     "TIME on SLOT K ROOT DEVICE[ odd][ fault KIND]" and
//                                      "TIME off SLOT K ROOT WHY" per phone,
//                                      WHY: schedule, signal, command CMD, end
//
// In a folder that an earlier fixture used, the phone numbers go on after
// the ones there. A test in C++ can drive slots itself, without this
// program: sandbox::FixtureSlot (line(), swap(), the same folder layout).
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "sandbox.hpp"

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

constexpr const char* kUsage =
    "usage: ovta-fixture [--phones N] [--table-bytes N] [--dir DIR] [--swap-every S[,S...]] [--swap-gap S]\n"
    "                    [--pull-on SLOT:CMD]... [--odd-phone SLOT:K]... [--fault KIND:P[@SLOT]]... [--seed N]\n"
    "                    [--swap-on-verdict] [--phones-per-slot K] [--station-handshake] [--runs K] [--time]\n"
    "                    -- PROGRAM ARGS...\n"
    "Lays out N phones (4), runs PROGRAM with one --device DIR/slot-N/tty per slot. SIGUSR1 swaps\n"
    "the slots listed in DIR/swap, or the next one in turn; DIR/phones.log says where each phone's\n"
    "stores stay (DIR/slot-N/phone-K/amt/). See the head of tools/ovta_fixture.cpp.\n";

std::string binary_dir() {
    char self[4096] = {};
    ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    std::string path(self, n > 0 ? static_cast<size_t>(n) : 0);
    return path.substr(0, path.rfind('/'));
}

// Seconds as text ("2", "0.5") to milliseconds; nothing for bad text.
std::optional<milliseconds> seconds(const std::string& text) {
    char* end = nullptr;
    errno = 0;
    const double s = strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || errno != 0 || !(s >= 0) || s > 1e6) return std::nullopt;
    return milliseconds(static_cast<long long>(s * 1000 + 0.5));
}

std::optional<unsigned long> number(const std::string& text, unsigned long max) {
    char* end = nullptr;
    errno = 0;
    const unsigned long n = strtoul(text.c_str(), &end, 10);
    if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0 || n > max) return std::nullopt;
    return n;
}

struct Options {
    size_t phones = 4;
    size_t table_bytes = 64;
    std::string dir;
    std::vector<milliseconds> every;
    milliseconds gap{500};
    std::vector<std::pair<size_t, uint32_t>> pulls;  // slot, command
    std::vector<std::pair<size_t, size_t>> odd;      // slot, phone
    struct Fault {
        std::string kind;
        unsigned percent = 0;
        size_t slot = 0;  // 0: every slot
    };
    std::vector<Fault> faults;
    uint64_t seed = 1;
    bool swap_on_verdict = false;
    size_t phones_per_slot = 0;
    bool station_handshake = false;
    int runs = 1;
    bool timed = false;
    std::vector<std::string> command;
};

// The options, or nothing with the complaint on stderr.
std::optional<Options> parse(int argc, char** argv) {
    Options o;
    auto bad = [](const std::string& what) {
        fprintf(stderr, "ovta-fixture: %s\n%s", what.c_str(), kUsage);
        return std::nullopt;
    };
    int i = 1;
    for (; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--") break;
        const bool has_value = i + 1 < argc;
        const std::string value = has_value ? argv[i + 1] : "";
        if (arg == "--station-handshake") {
            o.station_handshake = true;
            continue;
        }
        if (arg == "--time") {
            o.timed = true;
            continue;
        }
        if (arg == "--swap-on-verdict") {
            o.swap_on_verdict = true;
            continue;
        }
        if (!has_value) return bad("unknown option or no value: " + arg);
        ++i;
        if (arg == "--phones") {
            auto n = number(value, 64);
            if (!n || *n == 0) return bad("--phones takes 1 to 64, not " + value);
            o.phones = *n;
        } else if (arg == "--table-bytes") {
            auto n = number(value, 1ul << 30);
            if (!n) return bad("--table-bytes takes a byte count, not " + value);
            o.table_bytes = *n;
        } else if (arg == "--runs") {
            auto n = number(value, 1000000);
            if (!n || *n == 0) return bad("--runs takes a count from 1, not " + value);
            o.runs = static_cast<int>(*n);
        } else if (arg == "--dir") {
            o.dir = value;
        } else if (arg == "--swap-every") {
            o.every.clear();  // the last one counts
            std::stringstream parts(value);
            for (std::string part; std::getline(parts, part, ',');) {
                auto s = seconds(part);
                if (!s || s->count() == 0) return bad("--swap-every takes seconds above 0, not " + value);
                o.every.push_back(*s);
            }
        } else if (arg == "--swap-gap") {
            auto s = seconds(value);
            if (!s) return bad("--swap-gap takes seconds, not " + value);
            o.gap = *s;
        } else if (arg == "--pull-on") {
            const size_t colon = value.find(':');
            auto slot = number(value.substr(0, colon), 64);
            auto cmd = colon == std::string::npos ? std::nullopt : number(value.substr(colon + 1), 0xFFFFFFFFul);
            if (!slot || *slot == 0 || !cmd) return bad("--pull-on takes SLOT:CMD, not " + value);
            o.pulls.emplace_back(*slot, static_cast<uint32_t>(*cmd));
        } else if (arg == "--fault") {
            const size_t colon = value.find(':');
            const size_t at = value.find('@');
            Options::Fault f;
            f.kind = value.substr(0, colon);
            auto p = colon == std::string::npos ? std::nullopt : number(value.substr(colon + 1, at - colon - 1), 100);
            auto slot = at == std::string::npos ? std::optional<unsigned long>(0) : number(value.substr(at + 1), 64);
            if ((f.kind != "rf" && f.kind != "card" && f.kind != "wfmgr") || !p || !slot || (at != std::string::npos && *slot == 0)) {
                return bad("--fault takes rf, card or wfmgr, a percent and an optional @SLOT, not " + value);
            }
            f.percent = static_cast<unsigned>(*p);
            f.slot = *slot;
            o.faults.push_back(f);
        } else if (arg == "--seed") {
            auto n = number(value, ~0ul);
            if (!n) return bad("--seed takes a number, not " + value);
            o.seed = *n;
        } else if (arg == "--phones-per-slot") {
            auto n = number(value, 1000000);
            if (!n || *n == 0) return bad("--phones-per-slot takes a count from 1, not " + value);
            o.phones_per_slot = *n;
        } else if (arg == "--odd-phone") {
            const size_t colon = value.find(':');
            auto slot = number(value.substr(0, colon), 64);
            auto k = colon == std::string::npos ? std::nullopt : number(value.substr(colon + 1), 1000000);
            if (!slot || *slot == 0 || !k || *k == 0) return bad("--odd-phone takes SLOT:K, not " + value);
            o.odd.emplace_back(*slot, *k);
        } else {
            return bad("unknown option " + arg);
        }
    }
    if (i + 1 >= argc) return bad("no program after --");
    o.command.assign(argv + i + 1, argv + argc);
    for (const auto& [slot, cmd] : o.pulls) {
        if (slot > o.phones) return bad("--pull-on names slot " + std::to_string(slot) + " of " + std::to_string(o.phones));
    }
    for (const auto& [slot, k] : o.odd) {
        if (slot > o.phones) return bad("--odd-phone names slot " + std::to_string(slot) + " of " + std::to_string(o.phones));
    }
    for (size_t slot = 0; slot <= o.phones; ++slot) {
        unsigned total = 0;
        for (const Options::Fault& f : o.faults) total += f.slot == 0 || f.slot == slot ? f.percent : 0;
        if (total > 100) return bad("the faults of slot " + std::to_string(slot) + " add up to more than 100 %");
    }
    for (const Options::Fault& f : o.faults) {
        if (f.slot > o.phones) return bad("--fault names slot " + std::to_string(f.slot) + " of " + std::to_string(o.phones));
    }
    return o;
}

// A number from 0 to 99 for phone K of SLOT, the same for the same seed
// (splitmix64 over the three).
unsigned draw(uint64_t seed, size_t slot, size_t k) {
    uint64_t z = seed * 0x9E3779B97F4A7C15ull + slot * 0xBF58476D1CE4E5B9ull + k * 0x94D049BB133111EBull;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    z ^= z >> 31;
    return static_cast<unsigned>(z % 100);
}

// The fault phone K of SLOT gets, laid into `phone`; empty for none.
std::string plant(const Options& o, size_t slot, size_t k, sandbox::FixtureSetup* phone) {
    const unsigned d = draw(o.seed, slot, k);
    unsigned below = 0;
    for (const Options::Fault& f : o.faults) {
        if (f.slot != 0 && f.slot != slot) continue;
        below += f.percent;
        if (d >= below) continue;
        if (f.kind == "rf") {
            for (char& c : phone->files[0].second) c = static_cast<char>(~c);
        } else if (f.kind == "card") {
            phone->phone.sdcard_bytes.reset();
        } else {
            phone->wfmgr_args.insert(phone->wfmgr_args.end(), {"--load-error", "1"});
        }
        return f.kind;
    }
    return "";
}

// The slots that DIR/swap names (the file is removed), or the next in turn.
std::vector<size_t> slots_to_swap(const std::string& dir, size_t phones, size_t* turn) {
    const std::string path = dir + "/swap";
    std::ifstream in(path);
    if (!in) {
        *turn = *turn % phones + 1;
        return {*turn};
    }
    std::vector<size_t> slots;
    for (std::string word; in >> word;) {
        auto n = number(word, phones);
        if (n && *n > 0) {
            slots.push_back(*n);
        } else {
            fprintf(stderr, "ovta-fixture: %s: no slot %s (1 to %zu)\n", path.c_str(), word.c_str(), phones);
        }
    }
    unlink(path.c_str());
    return slots;
}

// Runs the program to its end; swaps on SIGUSR1 and passes SIGTERM on.
// `cpu` gets its user and system time in seconds; `terminated` is set when
// SIGTERM came.
int run(const std::vector<std::string>& args, int signals, const std::string& dir,
        std::vector<std::unique_ptr<sandbox::FixtureSlot>>& slots, bool day, size_t* turn, double* cpu,
        bool* terminated) {
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
    if (pid < 0) return 127;
    // Readable once the program has ended (glibc's pidfd_open lacks C linkage).
    UniqueFd ended(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    if (!ended.valid()) fprintf(stderr, "ovta-fixture: pidfd_open: %s; no swaps by signal\n", strerror(errno));
    bool day_over = false;
    while (ended.valid()) {
        pollfd p[2] = {{signals, POLLIN, 0}, {ended.get(), POLLIN, 0}};
        if (poll(p, 2, day ? 200 : -1) < 0 && errno != EINTR) break;
        if (p[1].revents != 0) break;
        if (day && !day_over &&
            std::all_of(slots.begin(), slots.end(), [](const auto& s) { return s->done(); })) {
            fprintf(stderr, "ovta-fixture: every slot has had its phones: ending the day\n");
            kill(pid, SIGTERM);
            day_over = true;
        }
        signalfd_siginfo info{};
        if (!(p[0].revents & POLLIN) || read(signals, &info, sizeof(info)) != sizeof(info)) continue;
        if (info.ssi_signo == SIGTERM) {
            *terminated = true;
            kill(pid, SIGTERM);
            continue;
        }
        for (size_t slot : slots_to_swap(dir, slots.size(), turn)) {
            fprintf(stderr, "ovta-fixture: slot %zu: swapping the phone\n", slot);
            slots[slot - 1]->swap("signal");
        }
    }
    int status = 0;
    rusage usage{};
    if (wait4(pid, &status, 0, &usage) != pid) return 127;
    *cpu = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

int main(int argc, char** argv) {
    std::optional<Options> parsed = parse(argc, argv);
    if (!parsed) return 2;
    Options& o = *parsed;
    // Ctrl-C is the program's; the fixture only waits for it to end.
    sigset_t stop_set;
    if (!sandbox::start_phone_program("ovta-fixture", &stop_set)) return 1;
    // SIGUSR1 and SIGTERM come through a descriptor, blocked in every thread.
    sigset_t taken;
    sigemptyset(&taken);
    sigaddset(&taken, SIGUSR1);
    sigaddset(&taken, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &taken, nullptr);
    UniqueFd signals(signalfd(-1, &taken, SFD_CLOEXEC));

    const bool temporary = o.dir.empty();
    if (temporary) {
        const char* tmp = getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/ovta-fixture-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) {
            fprintf(stderr, "ovta-fixture: mkdtemp: %s\n", strerror(errno));
            return 1;
        }
        o.dir = pattern;
    }
    std::error_code ec;
    fs::create_directories(o.dir, ec);
    std::string why;
    std::unique_ptr<sandbox::PhoneLog> log = sandbox::PhoneLog::open(o.dir + "/phones.log", &why);
    if (!log) {
        fprintf(stderr, "ovta-fixture: %s\n", why.c_str());
        return 1;
    }

    const std::string bin = binary_dir();
    sandbox::FixtureSetup setup;
    setup.phone.config = "amt_relate_path = /amt/\n";
    setup.phone.host_dirs = {bin};
    std::string table;
    for (size_t i = 0; i < o.table_bytes; ++i) table.push_back(static_cast<char>(i));
    setup.files = {{"/amt/rf/rf_table_1.bin", table}};
    setup.agent = bin + "/ovta-amt";
    setup.wfmgr_sim = bin + "/wfmgr-sim";
    setup.wfmgr_args = {"--amt-path", "/amt/", "--rf-path", "/amt/rf/", "--rftab", "1=rf_table_1.bin"};
    setup.station_handshake = o.station_handshake;
    sandbox::FixtureSetup odd_setup = setup;
    for (char& c : odd_setup.files[0].second) c = static_cast<char>(~c);

    fprintf(stderr, "ovta-fixture: laying out %zu phones in %s\n", o.phones, o.dir.c_str());
    std::vector<std::unique_ptr<sandbox::FixtureSlot>> slots;
    for (size_t i = 0; i < o.phones; ++i) {
        sandbox::SlotSetup s;
        s.slot = i + 1;
        s.dir = o.dir;
        s.phone = setup;
        s.log = log.get();
        s.gap = o.gap;
        if (!o.every.empty()) {
            s.every = o.every[std::min(i, o.every.size() - 1)];
            s.first = s.every;
            if (o.every.size() == 1) s.first += s.every * static_cast<long>(i) / static_cast<long>(o.phones);
        }
        for (const auto& [slot, cmd] : o.pulls) {
            if (slot == i + 1) s.pull_on_command = cmd;
        }
        for (const auto& [slot, k] : o.odd) {
            if (slot == i + 1) s.odd.push_back(k);
        }
        s.odd_phone = odd_setup;
        if (!o.faults.empty()) {
            s.plant = [&o, slot = i + 1](size_t k, sandbox::FixtureSetup* phone) { return plant(o, slot, k, phone); };
        }
        s.swap_on_verdict = o.swap_on_verdict;
        s.last_phone = o.phones_per_slot;
        slots.push_back(std::make_unique<sandbox::FixtureSlot>(std::move(s)));
    }
    bool up = true;
    for (size_t i = 0; i < o.phones; ++i) {
        if (!slots[i]->wait_first(&why)) {
            fprintf(stderr, "ovta-fixture: phone %zu did not come up: %s\n", i + 1, why.c_str());
            up = false;
        }
    }
    int status = 1;
    if (up) {
        std::vector<std::string> command = o.command;
        for (auto& s : slots) command.insert(command.end(), {"--device", s->line()});
        size_t turn = 0;
        bool terminated = false;
        for (int r = 1; r <= o.runs && !terminated; ++r) {
            const auto start = std::chrono::steady_clock::now();
            double cpu = 0;
            status = run(command, signals.get(), o.dir, slots, o.phones_per_slot > 0, &turn, &cpu, &terminated);
            if (o.timed) {
                fprintf(stderr, "run %d: %.3f s, cpu %.3f s\n", r,
                        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), cpu);
            }
        }
    }
    fprintf(stderr, "ovta-fixture: stopping the phones\n");
    slots.clear();
    log.reset();
    if (temporary) fs::remove_all(o.dir, ec);
    return status;
}
