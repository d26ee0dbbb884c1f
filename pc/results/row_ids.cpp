#include "pc/results/row_ids.hpp"

#include <chrono>
#include <cstdio>
#include <ctime>
#include <random>
#include <unistd.h>

namespace results {

std::string make_run_id(std::optional<int64_t> station, const std::string& host, const std::string& utc) {
    std::string id = station ? std::to_string(*station) : std::string("x");
    id += '-';
    for (char c : host) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '-';
        id += plain ? c : '_';
    }
    id += '-';
    for (char c : utc) {
        if (c != '-' && c != ':' && c != '.') id += c;
    }
    // std::random_device reads the kernel's random source: two stations
    // started in the same millisecond still differ here.
    std::random_device device;
    const uint64_t random = (uint64_t{device()} << 32) | device();
    char tail[20];
    snprintf(tail, sizeof(tail), "-%016llx", static_cast<unsigned long long>(random));
    return id + tail;
}

std::string make_slot_id(const std::string& run_id, int64_t fixture_slot, int64_t cycle) {
    return run_id + "/" + std::to_string(fixture_slot) + "." + std::to_string(cycle);
}

std::string utc_now_ms() {
    const auto now = std::chrono::system_clock::now();
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count();
    const time_t seconds = static_cast<time_t>(ms / 1000);
    struct tm parts {};
    gmtime_r(&seconds, &parts);
    char text[96];
    snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", parts.tm_year + 1900, parts.tm_mon + 1,
             parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, static_cast<int>(ms % 1000));
    return text;
}

std::string host_name() {
    char name[256] = {};
    if (gethostname(name, sizeof(name) - 1) != 0 || name[0] == '\0') return "unknown-host";
    return name;
}

}  // namespace results
