// The terminal that the station's live table is drawn on: a tty on Linux, a
// console on Windows, where escape sequences and UTF-8 are turned on first.
// posix/ and win32/ hold the two halves. Used by the main thread only.
#pragma once

#include <cstdio>
#include <string_view>

namespace pcos {

// Whether `out` is a terminal that takes the table's escape sequences. On
// Windows it turns on the console's virtual-terminal processing and UTF-8
// output; false when the console refuses them.
bool open_terminal(FILE* out);
// The terminal's width in columns; 0 when it does not say.
int terminal_columns(FILE* out);
// Writes `text` to the terminal in one write, so that a redraw never shows
// half drawn.
void write_terminal(FILE* out, std::string_view text);

}  // namespace pcos
