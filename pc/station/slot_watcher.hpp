// Who else hears of a phone as it goes, beside the slot's record: the
// results database (results_feed.hpp). Called on the slot's own thread, in
// order: started() once the line is open (and the board number read, when
// the station asked the phone for it), step_done() as each step of the
// record is settled (steps not run too, the verdict last), finished() with
// the whole record. A phone whose line never opened gets finished() alone.
// A watcher must not fail the phone: it keeps its own errors.
#pragma once

#include "pc/station/slot_record.hpp"

namespace station {

class SlotWatcher {
public:
    virtual ~SlotWatcher() = default;
    virtual void started(const SlotRecord& record) = 0;
    virtual void step_done(const SlotRecord& record, const StepRecord& step) = 0;
    virtual void finished(const SlotRecord& record) = 0;
};

}  // namespace station
