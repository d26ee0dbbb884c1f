// ovta-bench-pty-echo: the floor of the line benchmark. It sits where the
// agent sits, on the phone's end of the pseudo-terminal, and answers each PC
// frame at once with the bytes the agent would send, in one write:
//
//   ovta-bench-pty-echo [--device PATH] [--version-len N]
//
//   cmd 61  the pre-response and response 62 with len (word at 24) data bytes
//   cmd 45  the pre-response and response 46 with a version of N bytes
//   other   the pre-response and a 24-byte frame cmd + 1, kEchoMark
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <termios.h>
#include <vector>

#include "peer_io.hpp"

namespace {

constexpr uint32_t kReadTable = 61;
constexpr uint32_t kReadVersion = 45;

}  // namespace

int main(int argc, char** argv) {
    std::string device = "/dev/ttyGS3";
    uint32_t version_len = 1;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string a = argv[i];
        if (a == "--device") {
            device = argv[i + 1];
        } else if (a == "--version-len") {
            version_len = static_cast<uint32_t>(strtoul(argv[i + 1], nullptr, 10));
        } else {
            fprintf(stderr, "usage: %s [--device PATH] [--version-len N]\n", argv[0]);
            return 2;
        }
    }
    if (version_len < 1 || version_len > 64) version_len = 1;
    int fd = open(device.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        perror(device.c_str());
        return 1;
    }
    termios tio{};
    if (tcgetattr(fd, &tio) == 0) {
        cfmakeraw(&tio);
        tcsetattr(fd, TCSANOW, &tio);
    }
    fprintf(stderr, "echoing on %s\n", device.c_str());
    peer::Reader in(fd);
    std::vector<uint8_t> frame(peer::kFrameLenMax + 8);
    std::vector<uint8_t> reply(16 + peer::kFrameLenMax + 8, 0x5A);
    memcpy(reply.data(), peer::kPreResponse, 16);
    uint8_t* rsp = reply.data() + 16;
    for (;;) {
        size_t got = in.read_pc_frame(frame.data());
        if (got == 0) return 0;
        uint32_t cmd = got >= 16 ? peer::get_le32(frame.data() + 12) : 0;
        size_t size;
        if (cmd == kReadTable && got >= 28) {
            uint32_t len = peer::get_le32(frame.data() + 24);
            if (len > peer::kFrameLenMax - 16) len = peer::kFrameLenMax - 16;
            peer::put_le32(rsp + 16, 0);  // result_code; the data behind it is left as it is
            size = peer::finish_response(rsp, cmd + 1, len + 4);
        } else if (cmd == kReadVersion && got >= 20) {
            peer::put_le32(rsp + 16, 0);
            memcpy(rsp + 20, frame.data() + 16, 4);  // module
            size = peer::finish_response(rsp, cmd + 1, 8 + version_len);
        } else {
            peer::put_le32(rsp + 16, peer::kEchoMark);
            size = peer::finish_response(rsp, cmd + 1, 4);
        }
        if (!peer::write_all(fd, reply.data(), 16 + size)) return 1;
    }
}
