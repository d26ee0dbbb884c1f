#include "pc/lib/progress_bar.hpp"

#include <algorithm>

namespace tools {

std::string progress_text(size_t done, size_t total, size_t width) {
    done = std::min(done, total);
    // Transfers are at most 4 GiB, so the products fit 64 bits.
    const size_t marks = total == 0 ? width : done * width / total;
    const size_t percent = total == 0 ? 100 : done * 100 / total;
    std::string bar = "[" + std::string(marks, '#') + std::string(width - marks, '.') + "]";
    char tail[64];
    snprintf(tail, sizeof(tail), " %3zu%%  %zu/%zu bytes", percent, done, total);
    return bar + tail;
}

ProgressBar::~ProgressBar() {
    if (drawn_) {
        fputc('\n', out_);
        fflush(out_);
    }
}

void ProgressBar::update(size_t done) {
    if (!enabled_) return;
    fprintf(out_, "\r%s", progress_text(done, total_).c_str());
    fflush(out_);
    drawn_ = true;
}

}  // namespace tools
