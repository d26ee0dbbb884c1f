// One step's exchange with a phone: the request made from the step's
// arguments (placeholders put in), the command sent, and the answer judged
// and decoded into the step's record (request, answer, frames) and the
// value measured. An rf read or write goes slice by slice and reports the
// bytes done after each. Runs on the slot's thread.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <vector>

#include "pc/lib/pc_exchange.hpp"
#include "pc/station/expectation.hpp"
#include "pc/station/plan.hpp"
#include "pc/station/slot_record.hpp"

namespace station {

using RfProgress = std::function<void(size_t done)>;

// Runs `step` on `link` into `r` and `got`; how the exchange ended.
tools::Outcome exchange_step(tools::PcLink& link, const Step& step, const SlotValues& values, StepRecord& r,
                             Measured& got, const RfProgress& progress);

// Data as hex text for a record, or "N bytes" when it is longer than 4 KiB.
nlohmann::json hex_or_count(const std::vector<uint8_t>& data);

}  // namespace station
