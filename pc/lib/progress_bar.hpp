// A one-line progress bar for transfers of several slices, redrawn in place
// on a terminal with a carriage return.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

namespace tools {

// "[##########..........]  50%  16384/32768 bytes", `width` marks between
// the brackets. `done` above `total` counts as `total`.
std::string progress_text(size_t done, size_t total, size_t width = 40);

// Draws the bar on `out` (stderr for the tools) as the transfer goes on, and
// ends its line when destroyed. Draws nothing when `enabled` is false.
class ProgressBar {
public:
    ProgressBar(FILE* out, size_t total, bool enabled) : out_(out), total_(total), enabled_(enabled) {}
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    void update(size_t done);

private:
    FILE* out_;
    size_t total_;
    bool enabled_;
    bool drawn_ = false;
};

}  // namespace tools
