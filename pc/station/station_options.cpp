#include "pc/station/station_options.hpp"

#include <algorithm>

#include "pc/os/line.hpp"

namespace station {

const char kUsage[] =
    "usage: ovta-station PLAN --device PATH [--device PATH ...] [--loop] [--board SN ... | --boards FILE]\n"
    "                    [--records DIR] [--junit FILE] [--database FILE|URL] [--plain]\n"
    "\n"
    "Runs the plan (a TOML file) on every device at once, one slot per device in the order given.\n"
    "  --device PATH   a phone's serial line; repeatable, and a glob such as '/dev/ttyACM*' gives one\n"
    "                  slot per match, in name order\n"
    "  --loop          each slot on its own cycle: wait for a phone, run the plan, wait for the phone\n"
    "                  to go, again, until Ctrl-C\n"
    "  --board SN      the board number of the phone on each device, once per device in device order\n"
    "  --boards FILE   board numbers, one line per phone: a slot number or device, and a board number;\n"
    "                  with --loop taken in order, one per phone that comes to the slot.\n"
    "                  Without either: the plan's boards = [...], or else read from the phone\n"
    "  --records DIR   where the records go (default records/): each run in a folder of its own,\n"
    "                  DIR/YYYYMMDDTHHMMSSZ-PLAN/, with slot-N.json per phone and junit.xml\n"
    "  --junit FILE    the JUnit XML file instead of the run folder's junit.xml\n"
    "  --database FILE|URL  the results database every run, phone and step goes into as it runs (default\n"
    "                  DIR/results.db); a postgresql:// URL sends the rows on to the line's server, and\n"
    "                  they wait in DIR/results.db while it cannot be reached\n"
    "  --plain         one line per finished step even on a terminal, instead of the live table\n"
    "\n"
    "Ctrl-C stops every slot at once; the records of what ran are still written.\n"
    "Exit status: 0 every phone passed, 1 any phone failed, was stopped or has an unknown verdict,\n"
    "2 plan or usage error\n";

namespace {

// The device paths of one --device: the ports a pattern names (a glob on
// Linux, COM* on Windows), or the name.
bool add_devices(const std::string& pattern, std::vector<std::string>* out) {
    if (!pcos::is_line_pattern(pattern)) {
        out->push_back(pattern);
        return true;
    }
    const std::vector<std::string> matches = pcos::list_lines(pattern);
    out->insert(out->end(), matches.begin(), matches.end());
    return !matches.empty();
}

}  // namespace

std::optional<std::string> read_options(int argc, char** argv, Options* opt) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool has_value = i + 1 < argc;
        if (arg == "--plain") {
            opt->plain = true;
        } else if (arg == "--loop") {
            opt->loop = true;
        } else if (arg == "--device" && has_value) {
            if (!add_devices(argv[++i], &opt->devices)) return std::string("no device matches ") + argv[i];
        } else if (arg == "--board" && has_value) {
            opt->boards.push_back(argv[++i]);
        } else if (arg == "--boards" && has_value) {
            opt->board_file = argv[++i];
        } else if (arg == "--records" && has_value) {
            opt->records = argv[++i];
        } else if (arg == "--junit" && has_value) {
            opt->junit = argv[++i];
        } else if (arg == "--database" && has_value) {
            opt->database = argv[++i];
        } else if (arg.size() > 1 && arg[0] == '-') {
            return "unknown option or missing value: " + arg;
        } else if (opt->plan.empty()) {
            opt->plan = arg;
        } else {
            return "one plan only: " + arg;
        }
    }
    if (opt->plan.empty()) return "no plan";
    if (opt->devices.empty()) return "no --device";
    std::vector<std::string> sorted = opt->devices;
    std::sort(sorted.begin(), sorted.end());
    if (std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end()) return "a device given twice";
    if (!opt->boards.empty() && !opt->board_file.empty()) return "--board and --boards together";
    if (!opt->boards.empty() && opt->boards.size() != opt->devices.size()) {
        return std::to_string(opt->boards.size()) + " --board for " + std::to_string(opt->devices.size()) +
               " devices: one per device";
    }
    return std::nullopt;
}

std::optional<std::string> gather_boards(const Options& opt, const Plan& plan, BoardList* list) {
    const size_t slots = opt.devices.size();
    std::string error;
    if (!opt.board_file.empty()) {
        if (!read_board_file(opt.board_file, opt.devices, list, &error)) return error;
    } else {
        const std::vector<std::string>& given = opt.boards.empty() ? plan.boards : opt.boards;
        if (!given.empty() && given.size() < slots) {
            return "the plan lists " + std::to_string(given.size()) + " board numbers for " + std::to_string(slots) +
                   " devices";
        }
        for (size_t i = 0; i < given.size() && i < slots; ++i) list->add(i + 1, given[i]);
    }
    if (plan.uses_board) {
        if (list->empty()) return "the plan uses {board}: give --board SN per device, --boards FILE or boards = [...]";
        for (size_t slot = 1; slot <= slots; ++slot) {
            if (list->count(slot) == 0) return "no board number for slot " + std::to_string(slot);
        }
    }
    return std::nullopt;
}

}  // namespace station
