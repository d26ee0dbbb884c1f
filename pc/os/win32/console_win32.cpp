// The Windows half of the terminal: a console handle, switched to
// virtual-terminal processing (the table's escape sequences) and to UTF-8
// output, written with one WriteFile per redraw.
#include <windows.h>

#include <io.h>

#include "pc/os/console.hpp"

namespace pcos {
namespace {

HANDLE handle_of(FILE* out) { return reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(out))); }

}  // namespace

bool open_terminal(FILE* out) {
    const HANDLE h = handle_of(out);
    DWORD mode = 0;
    if (h == INVALID_HANDLE_VALUE || !GetConsoleMode(h, &mode)) return false;
    if (!SetConsoleMode(h, mode | ENABLE_PROCESSED_OUTPUT | ENABLE_VIRTUAL_TERMINAL_PROCESSING)) return false;
    SetConsoleOutputCP(CP_UTF8);
    return true;
}

int terminal_columns(FILE* out) {
    CONSOLE_SCREEN_BUFFER_INFO info{};
    if (!GetConsoleScreenBufferInfo(handle_of(out), &info)) return 0;
    return info.srWindow.Right - info.srWindow.Left + 1;
}

void write_terminal(FILE* out, std::string_view text) {
    fflush(out);
    const HANDLE h = handle_of(out);
    size_t done = 0;
    while (done < text.size()) {
        DWORD n = 0;
        if (!WriteFile(h, text.data() + done, static_cast<DWORD>(text.size() - done), &n, nullptr) || n == 0) break;
        done += n;
    }
}

}  // namespace pcos
