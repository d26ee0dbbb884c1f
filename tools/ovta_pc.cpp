// ovta-pc: the PC side of the serial link, for one command at a time.
//
//   ovta-pc [--device PATH] [--timeout MS] send CMD [--hex HEX | --file PATH]
//           [--no-response] [--raw]
//
// Sends a frame for command CMD with the given body and a fresh CRC, then
// reads what the phone returns: first the 16-byte pre-response, then the
// answer frame, each printed decoded. Exit status: 0 an answer came (with
// --no-response: the pre-response came), 1 only the pre-response came before
// the time-out, 2 nothing came, 3 a usage or device error.
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <termios.h>
#include <vector>

#include "tools/lib/hex_text.hpp"
#include "tools/lib/pc_frame_codec.hpp"
#include "tools/lib/serial_port.hpp"

namespace {

constexpr int kExitAnswer = 0;
constexpr int kExitPreResponseOnly = 1;
constexpr int kExitNothing = 2;
constexpr int kExitUsage = 3;

struct Options {
    std::string device = "/dev/ttyGS3";
    long timeout_ms = 3000;
    uint32_t cmd = 0;
    std::vector<uint8_t> body;
    bool no_response = false;
    bool raw = false;
};

void usage() {
    fprintf(stderr,
            "usage: ovta-pc [--device PATH] [--timeout MS] send CMD [--hex HEX | --file PATH] "
            "[--no-response] [--raw]\n"
            "  exit 0: answer came, 1: only the pre-response, 2: nothing, 3: usage or device error\n");
}

std::optional<unsigned long long> parse_number(const char* text, unsigned long long max) {
    if (text == nullptr || *text == '\0' || *text == '-') return std::nullopt;
    errno = 0;
    char* end = nullptr;
    unsigned long long v = strtoull(text, &end, 0);
    if (errno != 0 || *end != '\0' || v > max) return std::nullopt;
    return v;
}

std::optional<std::vector<uint8_t>> read_body_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        fprintf(stderr, "ovta-pc: cannot read %s: %s\n", path.c_str(), strerror(errno));
        return std::nullopt;
    }
    std::vector<uint8_t> body((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return body;
}

std::optional<Options> parse_args(int argc, char** argv) {
    Options opt;
    bool have_send = false;
    bool have_cmd = false;
    bool have_body = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (arg == "--device" && value != nullptr) {
            opt.device = value;
            ++i;
        } else if (arg == "--timeout" && value != nullptr) {
            auto ms = parse_number(value, 24ull * 3600 * 1000);
            if (!ms) return std::nullopt;
            opt.timeout_ms = static_cast<long>(*ms);
            ++i;
        } else if ((arg == "--hex" || arg == "--file") && value != nullptr && !have_body) {
            auto body = arg == "--hex" ? tools::parse_hex(value) : read_body_file(value);
            if (!body) {
                if (arg == "--hex") fprintf(stderr, "ovta-pc: not a hex byte string: %s\n", value);
                return std::nullopt;
            }
            opt.body = std::move(*body);
            have_body = true;
            ++i;
        } else if (arg == "--no-response") {
            opt.no_response = true;
        } else if (arg == "--raw") {
            opt.raw = true;
        } else if (arg == "send" && !have_send) {
            have_send = true;
        } else if (have_send && !have_cmd) {
            auto cmd = parse_number(argv[i], 0xFFFFFFFFull);
            if (!cmd) return std::nullopt;
            opt.cmd = static_cast<uint32_t>(*cmd);
            have_cmd = true;
        } else {
            return std::nullopt;
        }
    }
    if (!have_send || !have_cmd) return std::nullopt;
    if (opt.body.size() > tools::kPcBodyMax) {
        fprintf(stderr, "ovta-pc: a body holds at most %zu bytes\n", tools::kPcBodyMax);
        return std::nullopt;
    }
    return opt;
}

void print_indented(const std::string& text) {
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        printf("  %.*s\n", static_cast<int>(end - start), text.c_str() + start);
        start = end + 1;
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::optional<Options> opt = parse_args(argc, argv);
    if (!opt) {
        usage();
        return kExitUsage;
    }
    auto frame = tools::build_pc_frame(opt->cmd, opt->body);
    if (!frame) {
        fprintf(stderr, "ovta-pc: cannot build the frame\n");
        return kExitUsage;
    }

    std::string error;
    tools::UniqueFd fd = tools::open_raw_serial(opt->device, &error);
    if (!fd.valid()) {
        fprintf(stderr, "ovta-pc: %s\n", error.c_str());
        return kExitUsage;
    }
    tcflush(fd.get(), TCIFLUSH);  // what was there before is no answer to this frame
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(opt->timeout_ms);
    if (!tools::write_all(fd.get(), *frame)) {
        fprintf(stderr, "ovta-pc: cannot write to %s: %s\n", opt->device.c_str(), strerror(errno));
        return kExitUsage;
    }
    printf("sent: cmd %u, %zu body bytes, %zu bytes on the line\n", opt->cmd, opt->body.size(), frame->size());
    if (opt->raw) printf("raw: %s\n", tools::to_hex(*frame).c_str());

    tools::PcFrameCutter cutter;
    bool pre_response = false;
    bool answer = false;
    std::vector<uint8_t> buf(4096);
    while (!(pre_response && (answer || opt->no_response))) {
        long n = tools::read_some(fd.get(), buf, deadline);
        if (n == 0) break;
        if (n < 0) {
            fprintf(stderr, "ovta-pc: reading %s failed or the line went away\n", opt->device.c_str());
            break;
        }
        cutter.feed(std::span<const uint8_t>(buf.data(), static_cast<size_t>(n)));
        while (auto got = cutter.next()) {
            if (opt->raw) printf("raw: %s\n", tools::to_hex(*got).c_str());
            if (!pre_response && tools::is_pre_response(*got)) {
                printf("pre-response: OK\n");
                pre_response = true;
                continue;
            }
            auto decoded = tools::decode_pc_frame(*got);
            if (!decoded) continue;
            printf("response:\n");
            print_indented(tools::describe_pc_frame(*decoded));
            answer = true;
        }
    }
    if (cutter.skipped() != 0) printf("skipped: %zu bytes outside frames\n", cutter.skipped());
    fflush(stdout);

    if (opt->no_response) return pre_response ? kExitAnswer : kExitNothing;
    if (answer) return kExitAnswer;
    if (pre_response) {
        printf("no answer within %ld ms\n", opt->timeout_ms);
        return kExitPreResponseOnly;
    }
    printf("nothing within %ld ms\n", opt->timeout_ms);
    return kExitNothing;
}
