// ovta-pc's command line through CLI11. The help text is ovta-pc's own (one
// example per command), and each wrong line gets a message of its own.
#include "pc/ovta_pc/options.hpp"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "pc/lib/pc_requests.hpp"

namespace ovta_pc {

namespace {

const char kUsage[] =
    "usage: ovta-pc [--device PATH] [--timeout MS] [--raw | --json] COMMAND ...\n"
    "\n"
    "Commands the agent answers itself, each with an example:\n"
    "  enter-amt NAME [MODE]          enter AMT with wf_name NAME (MODE 0 by default; 4 rewrites the\n"
    "                                 agent's AMT path instead of loading)\n"
    "                                   ovta-pc enter-amt station_fct\n"
    "  version [MODULE]               the software version\n"
    "                                   ovta-pc version\n"
    "  date get | date set TEXT       the production date (reads give back 10 bytes)\n"
    "                                   ovta-pc date set 2022-08-05\n"
    "  board get | board set TEXT     the board number (reads give back 20 bytes)\n"
    "                                   ovta-pc board get\n"
    "  result get STATION             the test result of a station\n"
    "                                   ovta-pc result get 12\n"
    "  result set STATION RESULT [DESCRIPTION]\n"
    "                                   ovta-pc result set 12 1 ok\n"
    "  rf read TABLE OFFSET LEN [--out FILE] [--slice N]\n"
    "                                 read a slice of an RF table; prints the bytes or keeps them in FILE\n"
    "                                   ovta-pc rf read 1 0 65536 --out table1.bin\n"
    "  rf write TABLE OFFSET LEN (--in FILE | --hex HEX) [--slice N]\n"
    "                                 write the first LEN bytes of FILE or HEX into an RF table\n"
    "                                   ovta-pc rf write 1 0 16 --in table1.bin\n"
    "  card                           the size of the memory card\n"
    "                                   ovta-pc card\n"
    "Any command frame:\n"
    "  send CMD [--hex HEX | --file PATH] [--no-response]\n"
    "                                 send CMD with that body, show the answer numbered CMD + 1\n"
    "                                   ovta-pc send 100 --hex 01020304\n"
    "\n"
    "Options:\n"
#ifdef _WIN32
    "  --device PATH   the serial port: COM3, \\\\.\\COM12, or a pattern such as COM* that one port\n"
    "                  matches (default COM3)\n"
#else
    "  --device PATH   the serial port (default /dev/ttyGS3)\n"
#endif
    "  --timeout MS    wait for each answer this long (default 3000)\n"
    "  --slice N       bytes per frame of an RF transfer, 1 to 40928 (default 32768); a transfer of\n"
    "                  more than one slice draws a progress bar on stderr\n"
    "  --raw           also show every frame in hex, and the bytes skipped outside frames\n"
    "  --json          print the decoded answer as one JSON object on one line instead: \"command\",\n"
    "                  \"outcome\", \"text\", \"result_code\", and \"value\", \"number\", \"bytes\", \"data\"\n"
    "                  (hex), \"answer\" (a frame of send) and \"other_frames\" where they belong\n"
    "\n"
    "Exit status: 0 accepted, 1 only the pre-response came, 2 nothing came, 3 usage or device error,\n"
    "4 refused (result 10, or 1 of enter-amt), 5 no such station (result get), 6 malformed answer\n";


}  // namespace

const char* usage_text() { return kUsage; }

void fail(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    fputs("ovta-pc: ", stderr);
    vfprintf(stderr, fmt, args);
    fputc('\n', stderr);
    va_end(args);
}

std::optional<unsigned long long> parse_number(const std::string& text, unsigned long long max) {
    if (text.empty() || text[0] == '-') return std::nullopt;
    errno = 0;
    char* end = nullptr;
    unsigned long long v = strtoull(text.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || v > max) return std::nullopt;
    return v;
}

std::optional<uint32_t> parse_u32(const std::string& text, const char* what) {
    auto v = parse_number(text, 0xFFFFFFFFull);
    if (!v) fail("%s is no number from 0 to 4294967295: %s", what, text.c_str());
    return v ? std::optional<uint32_t>(static_cast<uint32_t>(*v)) : std::nullopt;
}

std::optional<Options> parse_options(int argc, char** argv) {
    Options opt;
    CLI::App app("ovta-pc");
    app.set_help_flag();  // --help prints usage_text(), not CLI11's
    app.allow_windows_style_options(false);  // on Windows too, /path is a file, not an option
    app.add_flag("-h,--help", opt.help);
    app.add_flag("--raw", opt.raw);
    app.add_flag("--json", opt.json);
    app.add_flag("--no-response", opt.no_response);
    app.add_option("--device", opt.device);
    std::string timeout;
    std::string slice;
    app.add_option("--timeout", timeout);
    app.add_option("--slice", slice);
    // Each of these takes one value, once.
    std::string out, in, hex, file;
    CLI::Option* once[] = {app.add_option("--out", out), app.add_option("--in", in), app.add_option("--hex", hex),
                           app.add_option("--file", file)};
    app.add_option("words", opt.words);  // the command and its arguments, wherever the options stand
    try {
        app.parse(argc, argv);
    } catch (const CLI::ExtrasError&) {
        std::vector<std::string> extra = app.remaining();
        fail("unknown option %s", extra.empty() ? "" : extra.front().c_str());
        return std::nullopt;
    } catch (const CLI::ParseError& e) {
        for (const CLI::Option* o : once) {
            if (std::string(e.what()).find(o->get_name()) != std::string::npos) {
                fail("%s takes one value, once", o->get_name().c_str());
                return std::nullopt;
            }
        }
        for (const char* name : {"--device", "--timeout", "--slice"}) {
            if (std::string(e.what()).rfind(name, 0) == 0) {
                fail("%s takes a value", name);
                return std::nullopt;
            }
        }
        fail("%s", e.what());
        return std::nullopt;
    }
    if (!timeout.empty() || app.count("--timeout") != 0) {
        auto ms = parse_number(timeout, 24ull * 3600 * 1000);
        if (!ms) {
            fail("--timeout takes milliseconds: %s", timeout.c_str());
            return std::nullopt;
        }
        opt.timeout_ms = static_cast<long>(*ms);
    }
    if (app.count("--slice") != 0) {
        auto n = parse_number(slice, tools::kTableSliceMax);
        if (!n || *n == 0) {
            fail("--slice takes 1 to %u bytes: %s", tools::kTableSliceMax, slice.c_str());
            return std::nullopt;
        }
        opt.slice = static_cast<uint32_t>(*n);
    }
    if (app.count("--out") != 0) opt.out_path = out;
    if (app.count("--in") != 0) opt.in_path = in;
    if (app.count("--hex") != 0) opt.hex = hex;
    if (app.count("--file") != 0) opt.body_file = file;
    if (opt.raw && opt.json) {
        fail("--raw and --json do not go together");
        return std::nullopt;
    }
    return opt;
}

}  // namespace ovta_pc
