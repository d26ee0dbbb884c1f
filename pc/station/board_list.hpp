// Board numbers from the command line, per slot: `--board SN` once per
// device, in device order, or `--boards FILE` with one line per phone, a
// slot number (from 1) or a device path and a board number:
//
//   # slot or device, board number
//   1            SN-0001
//   /dev/ttyACM1 SN-0002
//   1            SN-0005
//
// A single run takes each slot's first number; a loop takes them in order,
// one per phone that comes to the slot. Read by the main thread before the
// slots start; afterwards each slot's thread takes from its own list only.
#pragma once

#include <deque>
#include <optional>
#include <string>
#include <vector>

namespace station {

class BoardList {
public:
    explicit BoardList(size_t slots) : per_slot_(slots) {}

    // Adds `board` to the slot's list; slot from 1.
    void add(size_t slot, std::string board) { per_slot_[slot - 1].push_back(std::move(board)); }
    // The slot's next board number, taken off its list; nothing when it has none left.
    std::optional<std::string> take(size_t slot);
    bool empty() const;
    size_t count(size_t slot) const { return per_slot_[slot - 1].size(); }

private:
    std::vector<std::deque<std::string>> per_slot_;
};

// Reads a --boards file for the slots of `devices`. False, with
// "FILE:LINE: reason" in `error`, on a line that names no slot of this run,
// has no board number or more than two fields.
bool read_board_file(const std::string& path, const std::vector<std::string>& devices, BoardList* list,
                     std::string* error);

}  // namespace station
