// The station's two commands over the results database:
//   ovta-station report ...   the yield report (report_command.cpp)
//   ovta-station sync ...     the outbox to the line's server, once
// Each takes its own argv, argv[0] being the command's name, prints its
// usage on --help and returns the exit status.
#pragma once

#ifndef OVTA_WITH_RESULTS
#include <cstdio>
#include <cstring>
#endif

namespace results {

#ifdef OVTA_WITH_RESULTS

int report_command(int argc, char** argv);
int sync_command(int argc, char** argv);

// ovta-station's dispatch: the status of `report` or `sync` when argv[1]
// names one, -1 otherwise (the station's own command line).
int station_subcommand(int argc, char** argv);

#else

// A build without the results library (OVTA_RESULTS=OFF, as for Windows):
// the two commands say so instead of being taken for a plan.
inline int station_subcommand(int argc, char** argv) {
    if (argc < 2 || (strcmp(argv[1], "report") != 0 && strcmp(argv[1], "sync") != 0)) return -1;
    fprintf(stderr, "ovta-station %s: this ovta-station was built without the results database (OVTA_RESULTS=OFF)\n",
            argv[1]);
    return 2;
}

#endif

}  // namespace results
