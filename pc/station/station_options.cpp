#include "pc/station/station_options.hpp"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <utility>

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
    "                  they wait in DIR/results.db while it cannot be reached; off: none\n"
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
    CLI::App app("ovta-station");
    app.set_help_flag();  // --help prints kUsage, not CLI11's (main looks for it first)
    app.allow_windows_style_options(false);  // on Windows too, /path is a plan, not an option
    app.add_flag("--plain", opt->plain);
    app.add_flag("--loop", opt->loop);
    // Repeatable, one value each time; the plan may stand behind them.
    std::vector<std::string> devices;
    app.add_option("--device", devices)->allow_extra_args(false);
    app.add_option("--board", opt->boards)->allow_extra_args(false);
    // Given twice, the last one counts.
    for (auto [name, value] : {std::pair{"--boards", &opt->board_file}, std::pair{"--records", &opt->records},
                               std::pair{"--junit", &opt->junit}, std::pair{"--database", &opt->database}}) {
        app.add_option(name, *value)->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    }
    std::vector<std::string> plans;
    app.add_option("plan", plans);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // An option CLI11 does not know, or one without its value.
        for (int i = 1; i < argc; ++i) {
            const std::string arg = argv[i];
            if (arg.size() > 1 && arg[0] == '-' && std::string(e.what()).find(arg) != std::string::npos) {
                return "unknown option or missing value: " + arg;
            }
        }
        const std::vector<std::string> extra = app.remaining();
        return "unknown option or missing value: " + (extra.empty() ? std::string(e.what()) : extra.front());
    }
    for (const std::string& d : devices) {
        if (!add_devices(d, &opt->devices)) return "no device matches " + d;
    }
    if (plans.size() > 1) return "one plan only: " + plans[1];
    if (!plans.empty()) opt->plan = plans.front();
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
