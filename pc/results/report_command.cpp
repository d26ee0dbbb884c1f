// `ovta-station report`: the yield report over the station's results file or
// the line's server, on the terminal, as JSON or as an HTML page.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "pc/results/commands.hpp"
#include "pc/results/report.hpp"

namespace results {

namespace {

const char kReportUsage[] =
    "usage: ovta-station report [--database FILE|URL] [--records DIR] [--since UTC] [--until UTC]\n"
    "                           [--plan PLAN] [--station N] [--slot N] [--json] [--html FILE]\n"
    "\n"
    "The yield report: first-pass and final yield, the failing steps with their reasons, yield per\n"
    "fixture slot with a flag on a slot worse than the rest of its fixture, step durations, measured\n"
    "values against their limits and the boards that passed on a retest.\n"
    "  --database X    a results file (default records/results.db) or the line's server\n"
    "                  (postgresql://user@host/db)\n"
    "  --records DIR   the records folder whose results.db is read\n"
    "  --since UTC     phones started at or after it (2026-11-26 or 2026-11-26T06:00)\n"
    "  --until UTC     phones started before it\n"
    "  --plan PLAN     one plan only (its file, or its file name)\n"
    "  --station N     one station only\n"
    "  --slot N        one fixture slot only\n"
    "  --json          the report as JSON instead of the table\n"
    "  --html FILE     also a self-contained HTML page with charts\n"
    "\n"
    "Exit status: 0 the report was made, 1 the database could not be read, 2 usage error\n";

int report_usage_error(const std::string& why) {
    fprintf(stderr, "ovta-station report: %s; ovta-station report --help shows the usage\n", why.c_str());
    return 2;
}

bool whole_number(const char* text, int64_t* out) {
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0') return false;
    *out = value;
    return true;
}

// Written to a temporary name and renamed: a reader never sees half a page.
bool write_file(const std::string& path, const std::string& text, std::string* error) {
    const std::string temporary = path + ".tmp";
    FILE* f = fopen(temporary.c_str(), "wb");
    if (f == nullptr) {
        *error = "cannot write " + temporary + ": " + strerror(errno);
        return false;
    }
    const bool written = fwrite(text.data(), 1, text.size(), f) == text.size();
    if (fclose(f) != 0 || !written || rename(temporary.c_str(), path.c_str()) != 0) {
        *error = "cannot write " + path + ": " + strerror(errno);
        remove(temporary.c_str());
        return false;
    }
    return true;
}

}  // namespace

int report_command(int argc, char** argv) {
    std::string source = "records/results.db";
    std::string html;
    bool json = false;
    ReportFilter filter;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool has_value = i + 1 < argc;
        int64_t number = 0;
        if (arg == "--help" || arg == "-h") {
            fputs(kReportUsage, stdout);
            return 0;
        } else if (arg == "--json") {
            json = true;
        } else if (arg == "--database" && has_value) {
            source = argv[++i];
        } else if (arg == "--records" && has_value) {
            source = std::string(argv[++i]) + "/results.db";
        } else if (arg == "--since" && has_value) {
            filter.since = argv[++i];
        } else if (arg == "--until" && has_value) {
            filter.until = argv[++i];
        } else if (arg == "--plan" && has_value) {
            filter.plan = argv[++i];
        } else if (arg == "--html" && has_value) {
            html = argv[++i];
        } else if ((arg == "--station" || arg == "--slot") && has_value) {
            if (!whole_number(argv[++i], &number)) return report_usage_error(arg + " takes a whole number: " + argv[i]);
            (arg == "--station" ? filter.station : filter.fixture_slot) = number;
        } else {
            return report_usage_error("unknown option or missing value: " + arg);
        }
    }
    if (!filter.since.empty() && !filter.until.empty() && filter.until <= filter.since) {
        return report_usage_error("--until " + filter.until + " is not after --since " + filter.since);
    }
    ReportData data;
    std::string error;
    if (!load_report_data(source, filter, &data, &error)) {
        fprintf(stderr, "ovta-station report: %s\n", error.c_str());
        return 1;
    }
    Report report = compute_report(data);
    report.filter = filter;
    // A server's URL may carry a password: the report names the host only.
    report.source = source.rfind("postgres", 0) == 0 ? "the line's server" : source;
    if (json) {
        fputs((report_json(report).dump(2) + "\n").c_str(), stdout);
    } else {
        fputs(report_text(report).c_str(), stdout);
    }
    if (!html.empty()) {
        if (!write_file(html, report_html(report), &error)) {
            fprintf(stderr, "ovta-station report: %s\n", error.c_str());
            return 1;
        }
        if (!json) printf("\nThe page: %s\n", html.c_str());
    }
    return 0;
}

}  // namespace results
