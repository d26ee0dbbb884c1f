// The Linux half of the terminal: isatty, the window size from the tty.
#include <sys/ioctl.h>
#include <unistd.h>

#include "pc/os/console.hpp"

namespace pcos {

bool open_terminal(FILE* out) { return isatty(fileno(out)) == 1; }

int terminal_columns(FILE* out) {
    winsize size{};
    return ioctl(fileno(out), TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

void write_terminal(FILE* out, std::string_view text) {
    fflush(out);
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = write(fileno(out), text.data() + done, text.size() - done);
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
}

}  // namespace pcos
