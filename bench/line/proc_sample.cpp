#include "proc_sample.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <string>
#include <unistd.h>

namespace linebench {
namespace {

// utime and stime: fields 14 and 15 of stat, counted after the ")" that ends
// the thread's name (the name itself may hold blanks).
uint64_t cpu_ticks_of(const std::string& stat_path) {
    FILE* f = fopen(stat_path.c_str(), "re");
    if (f == nullptr) return 0;
    char line[1024] = {};
    size_t n = fread(line, 1, sizeof(line) - 1, f);
    fclose(f);
    line[n] = '\0';
    const char* p = strrchr(line, ')');
    if (p == nullptr) return 0;
    unsigned long long utime = 0, stime = 0;
    // After ")": state(3) ppid pgrp session tty_nr tpgid flags minflt cminflt majflt cmajflt utime(14) stime(15)
    if (sscanf(p + 1, " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %llu %llu", &utime, &stime) != 2) return 0;
    return utime + stime;
}

// The value of "key:" in a status file, or 0.
uint64_t status_value(const std::string& path, const char* key) {
    FILE* f = fopen(path.c_str(), "re");
    if (f == nullptr) return 0;
    char line[256];
    uint64_t value = 0;
    size_t klen = strlen(key);
    while (fgets(line, sizeof(line), f) != nullptr) {
        if (strncmp(line, key, klen) == 0 && line[klen] == ':') {
            value = strtoull(line + klen + 1, nullptr, 10);
            break;
        }
    }
    fclose(f);
    return value;
}

}  // namespace

ProcSample sample_process(pid_t pid) {
    ProcSample s;
    std::string base = "/proc/" + std::to_string(pid);
    if (DIR* d = opendir((base + "/task").c_str())) {
        while (dirent* e = readdir(d)) {
            if (e->d_name[0] < '0' || e->d_name[0] > '9') continue;
            std::string task = base + "/task/" + e->d_name;
            ThreadCounters t;
            t.cpu_ticks = cpu_ticks_of(task + "/stat");
            t.switches = status_value(task + "/status", "voluntary_ctxt_switches") +
                         status_value(task + "/status", "nonvoluntary_ctxt_switches");
            s.threads[static_cast<pid_t>(atoi(e->d_name))] = t;
        }
        closedir(d);
    }
    s.rss_kib = status_value(base + "/status", "VmRSS");
    if (DIR* d = opendir((base + "/fd").c_str())) {
        s.descriptors = 0;
        while (dirent* e = readdir(d)) s.descriptors += e->d_name[0] != '.';
        closedir(d);
    }
    return s;
}

Activity activity_between(const ProcSample& before, const ProcSample& after) {
    static const double ms_per_tick = 1000.0 / static_cast<double>(sysconf(_SC_CLK_TCK));
    Activity a;
    uint64_t ticks = 0;
    for (const auto& [tid, now] : after.threads) {
        auto was = before.threads.find(tid);
        ThreadCounters start = was == before.threads.end() ? ThreadCounters{} : was->second;
        ticks += now.cpu_ticks - start.cpu_ticks;
        a.switches += now.switches - start.switches;
    }
    a.cpu_ms = static_cast<double>(ticks) * ms_per_tick;
    return a;
}

}  // namespace linebench
