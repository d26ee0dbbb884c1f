// The station's clock as text: UTC, so that records from stations in
// different time zones sort and compare alike.
#pragma once

#include <string>

namespace station {

// Today, "YYYY-MM-DD": a plan's {today}.
std::string utc_date();
// Now, "YYYY-MM-DDTHH:MM:SSZ": a record's time stamps.
std::string utc_time_stamp();
// Now, "YYYYMMDDTHHMMSSZ": the name of a run's records folder, which sorts by time.
std::string utc_folder_stamp();

}  // namespace station
