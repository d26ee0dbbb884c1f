// What /proc tells of a running process, summed over its threads: CPU time
// and context switches (each wake-up of a thread ends in one), resident
// memory and open descriptors.
#pragma once

#include <cstdint>
#include <map>
#include <sys/types.h>

namespace linebench {

struct ThreadCounters {
    uint64_t cpu_ticks = 0;  // utime + stime
    uint64_t switches = 0;   // voluntary + non-voluntary
};

struct ProcSample {
    std::map<pid_t, ThreadCounters> threads;
    uint64_t rss_kib = 0;
    int descriptors = -1;
};

ProcSample sample_process(pid_t pid);

struct Activity {
    double cpu_ms = 0;
    uint64_t switches = 0;
};

// What the threads did between two samples; a thread that began in between
// counts from zero, one that ended in between is lost with its counts.
Activity activity_between(const ProcSample& before, const ProcSample& after);

}  // namespace linebench
