// Row ids that stay unique when the rows of many stations meet on one
// server: a run's id names its station, host and start to the millisecond,
// with 64 random bits behind them, so two stations (or two runs of one
// station in the same millisecond) never share one. A slot's id is its
// run's id with the fixture slot and the phone's count in that slot; a step
// is keyed by its slot's id and its index.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace results {

// "12-linepc3-20261126T071403125Z-5f0c9a17e2b4d861". `utc` is the run's
// start as ISO 8601 text; the host is kept to letters, digits, '.' and '-'.
std::string make_run_id(std::optional<int64_t> station, const std::string& host, const std::string& utc);

// "<run id>/3.17": slot 3's 17th phone of the run.
std::string make_slot_id(const std::string& run_id, int64_t fixture_slot, int64_t cycle);

// The time now as "2026-11-26T07:14:03.125Z".
std::string utc_now_ms();

// This PC's host name, or "unknown-host".
std::string host_name();

}  // namespace results
