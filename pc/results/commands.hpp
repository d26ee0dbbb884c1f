// The station's two commands over the results database:
//   ovta-station report ...   the yield report (report_command.cpp)
//   ovta-station sync ...     the outbox to the line's server, once
// Each takes its own argv, argv[0] being the command's name, prints its
// usage on --help and returns the exit status.
#pragma once

namespace results {

int report_command(int argc, char** argv);
int sync_command(int argc, char** argv);

// ovta-station's dispatch: the status of `report` or `sync` when argv[1]
// names one, -1 otherwise (the station's own command line).
int station_subcommand(int argc, char** argv);

}  // namespace results
