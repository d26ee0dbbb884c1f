// ovta-pc's command line: the options, the words of the command, the usage
// text and the exit status. Read once by main, on the main thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ovta_pc {

constexpr int kExitAccepted = 0;
constexpr int kExitPreResponseOnly = 1;
constexpr int kExitNothing = 2;
constexpr int kExitUsage = 3;  // also a device that cannot be opened, written or read
constexpr int kExitRefused = 4;
constexpr int kExitNoStation = 5;
constexpr int kExitMalformed = 6;

#ifdef _WIN32
inline constexpr char kDefaultDevice[] = "COM3";
#else
inline constexpr char kDefaultDevice[] = "/dev/ttyGS3";
#endif

struct Options {
    std::string device = kDefaultDevice;
    long timeout_ms = 3000;
    bool raw = false;
    bool json = false;
    bool no_response = false;
    bool help = false;
    std::optional<uint32_t> slice;
    std::optional<std::string> out_path;
    std::optional<std::string> in_path;
    std::optional<std::string> hex;
    std::optional<std::string> body_file;
    std::vector<std::string> words;  // the command and its arguments
};

// The options and words of the command line; nothing, with the reason on
// stderr, when they are wrong.
std::optional<Options> parse_options(int argc, char** argv);
// The text of --help.
const char* usage_text();

// "ovta-pc: " and the message, on stderr.
void fail(const char* fmt, ...) __attribute__((format(gnu_printf, 1, 2)));

// A number from 0 to `max`, decimal or 0x hexadecimal; nothing for others.
std::optional<unsigned long long> parse_number(const std::string& text, unsigned long long max);
// The same up to 4294967295; says on stderr which `what` was wrong.
std::optional<uint32_t> parse_u32(const std::string& text, const char* what);

}  // namespace ovta_pc
