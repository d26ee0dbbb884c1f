// `ovta-station sync`: one pass of the outbox sender, from the command line,
// for a station that ran while the line's server was away.
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/stat.h>

#include "pc/results/commands.hpp"
#include "pc/results/outbox_sender.hpp"

namespace results {

namespace {

const char kSyncUsage[] =
    "usage: ovta-station sync --database postgresql://... [--records DIR | --file FILE]\n"
    "\n"
    "Sends the rows of the station's results file that the line's server has not confirmed yet,\n"
    "each once, and exits.\n"
    "  --database URL  the line's PostgreSQL server (a libpq URL: postgresql://user@host/db)\n"
    "  --records DIR   the records folder whose results.db is sent (default records/)\n"
    "  --file FILE     the results file itself\n"
    "\n"
    "Exit status: 0 everything sent, 1 the server could not take it all (the rest waits in the\n"
    "file), 2 usage error\n";

int sync_usage_error(const std::string& why) {
    fprintf(stderr, "ovta-station sync: %s; ovta-station sync --help shows the usage\n", why.c_str());
    return 2;
}

}  // namespace

int sync_command(int argc, char** argv) {
    std::string url;
    std::string file = "records/results.db";
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool has_value = i + 1 < argc;
        if (arg == "--help" || arg == "-h") {
            fputs(kSyncUsage, stdout);
            return 0;
        } else if (arg == "--database" && has_value) {
            url = argv[++i];
        } else if (arg == "--records" && has_value) {
            file = std::string(argv[++i]) + "/results.db";
        } else if (arg == "--file" && has_value) {
            file = argv[++i];
        } else {
            return sync_usage_error("unknown option or missing value: " + arg);
        }
    }
    if (url.rfind("postgresql://", 0) != 0 && url.rfind("postgres://", 0) != 0) {
        return sync_usage_error("--database takes a postgresql:// URL");
    }
    struct stat st {};
    if (stat(file.c_str(), &st) != 0) return sync_usage_error("no results file " + file + ": " + strerror(errno));
    std::string error;
    std::unique_ptr<Store> store = Store::open(file, &error);
    if (!store) {
        fprintf(stderr, "ovta-station sync: %s\n", error.c_str());
        return 1;
    }
    OutboxSender sender(*store, url);
    size_t sent = 0;
    const bool ok = sender.send_pending(&sent, &error);
    const int64_t left = store->unsent_count();
    printf("sent %zu rows; %lld left in %s\n", sent, static_cast<long long>(left), file.c_str());
    if (!ok) fprintf(stderr, "ovta-station sync: %s\n", error.c_str());
    return ok && left == 0 ? 0 : 1;
}

int station_subcommand(int argc, char** argv) {
    if (argc < 2) return -1;
    if (strcmp(argv[1], "report") == 0) return report_command(argc - 1, argv + 1);
    if (strcmp(argv[1], "sync") == 0) return sync_command(argc - 1, argv + 1);
    return -1;
}

}  // namespace results
