#include "pc/station/board_list.hpp"

#include <fstream>
#include <sstream>

namespace station {

std::optional<std::string> BoardList::take(size_t slot) {
    std::deque<std::string>& list = per_slot_[slot - 1];
    if (list.empty()) return std::nullopt;
    std::string board = std::move(list.front());
    list.pop_front();
    return board;
}

bool BoardList::empty() const {
    for (const auto& list : per_slot_) {
        if (!list.empty()) return false;
    }
    return true;
}

bool read_board_file(const std::string& path, const std::vector<std::string>& devices, BoardList* list,
                     std::string* error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        *error = path + ": cannot be read";
        return false;
    }
    std::string text;
    for (int line = 1; std::getline(in, text); ++line) {
        const size_t hash = text.find('#');
        if (hash != std::string::npos) text.resize(hash);
        std::istringstream fields(text);
        std::string where;
        std::string board;
        std::string extra;
        if (!(fields >> where)) continue;
        const std::string at = path + ":" + std::to_string(line) + ": ";
        if (!(fields >> board)) {
            *error = at + "no board number behind " + where;
            return false;
        }
        if (fields >> extra) {
            *error = at + "a line holds a slot or device and one board number";
            return false;
        }
        size_t slot = 0;
        if (where.find_first_not_of("0123456789") == std::string::npos && where.size() < 6) {
            slot = std::stoul(where);
            if (slot < 1 || slot > devices.size()) {
                *error = at + "slot " + where + " is not one of 1 to " + std::to_string(devices.size());
                return false;
            }
        } else {
            for (size_t i = 0; i < devices.size() && slot == 0; ++i) {
                if (devices[i] == where) slot = i + 1;
            }
            if (slot == 0) {
                *error = at + where + " is no --device of this run";
                return false;
            }
        }
        list->add(slot, board);
    }
    return true;
}

}  // namespace station
