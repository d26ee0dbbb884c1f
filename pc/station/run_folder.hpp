// The folder of one run's records: under the records folder that
// --records names, one folder per run, named by its start in UTC and the
// plan ("20261126T054412Z-fixture"), so that a shift's runs sort by time and
// a second run never touches the first's files. Made by the main thread
// before any slot starts.
#pragma once

#include <optional>
#include <string>

namespace station {

// The folder's name for a run of the plan file `plan_name` started at
// `stamp` ("YYYYMMDDTHHMMSSZ"): the stamp and the plan's name without its
// directory and ".toml".
std::string run_folder_name(const std::string& stamp, const std::string& plan_name);

// Makes `parent` (when missing) and in it a new folder of that name, with
// "-2", "-3", ... behind it when a run of the same second has the name. The
// new folder's path, or nothing with the reason in `error`.
std::optional<std::string> make_run_folder(const std::string& parent, const std::string& name, std::string* error);

}  // namespace station
