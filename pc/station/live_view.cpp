#include "pc/station/live_view.hpp"

#include <algorithm>

#include "pc/lib/progress_bar.hpp"
#include "pc/os/console.hpp"

namespace station {
namespace {

std::string fit(const std::string& text, size_t width) {
    if (text.size() <= width) return text + std::string(width - text.size(), ' ');
    return text.substr(0, width - 1) + "~";
}

std::string elapsed(const SlotStatus& s, std::chrono::steady_clock::time_point now) {
    if (s.started == std::chrono::steady_clock::time_point{}) return "";
    const auto end = s.finished ? s.ended : now;
    char text[16];
    snprintf(text, sizeof(text), "%.1f s", std::chrono::duration<double>(end - s.started).count());
    return text;
}

}  // namespace

std::string loop_columns(const SlotStatus& s) {
    char rate[16] = "-";
    if (s.phones > 0) {
        snprintf(rate, sizeof(rate), "%.0f%%",
                 100.0 * static_cast<double>(s.phones_passed) / static_cast<double>(s.phones));
    }
    char counts[48];
    snprintf(counts, sizeof(counts), "%6zu %5s  ", s.phones, rate);
    return counts + fit(s.last_board.empty() ? "-" : s.last_board, 12) + " " +
           (s.last_verdict.empty() ? "-" : s.last_verdict);
}

std::vector<std::string> table_lines(const std::vector<SlotStatus>& rows, std::chrono::steady_clock::time_point now,
                                     bool loop) {
    // As wide as the longest device path, within reason.
    size_t device_width = 14;
    for (const SlotStatus& s : rows) device_width = std::max(device_width, std::min<size_t>(s.device.size(), 40));
    std::vector<std::string> lines;
    lines.push_back("slot  " + fit("device", device_width) + " " + fit("board", 12) + " " + fit("step", 28) + " " +
                    fit("rf", 15) + " pass fail  " + fit("time", 8) + " " +
                    (loop ? fit("state", 10) + " phones  pass  last board   last verdict" : "state"));
    for (size_t i = 0; i < rows.size(); ++i) {
        const SlotStatus& s = rows[i];
        std::string step = s.step == 0 ? "-" : std::to_string(s.step) + "/" + std::to_string(s.steps) + " " + s.step_name;
        std::string rf = "-";
        if (s.rf_total > 0 && !s.finished) {
            // The bar and the percentage, without the byte counts.
            rf = tools::progress_text(s.rf_done, s.rf_total, 8);
            rf = rf.substr(0, rf.find('%') + 1);
        }
        char counts[32];
        snprintf(counts, sizeof(counts), "%4zu %4zu  ", s.passed, s.failed);
        std::string state = s.finished ? s.verdict : s.step == 0 ? "starting" : "running";
        if (!loop) {
            lines.push_back(fit(std::to_string(i + 1), 6) + fit(s.device, device_width) + " " + fit(s.board, 12) + " " +
                            fit(step, 28) + " " + fit(rf, 15) + counts + fit(elapsed(s, now), 8) + " " + state);
            continue;
        }
        // Between phones the row shows what the slot waits for.
        if (s.closed) state = "ended";
        if (s.waiting || s.closed) {
            step = s.note;
            rf = "-";
            std::snprintf(counts, sizeof(counts), "%4s %4s  ", "", "");
        }
        if (s.waiting) state = "waiting";
        const bool idle = s.waiting || s.closed;
        lines.push_back(fit(std::to_string(i + 1), 6) + fit(s.device, device_width) + " " + fit(idle ? "" : s.board, 12) + " " +
                        fit(step, 28) + " " + fit(rf, 15) + counts + fit(idle ? "" : elapsed(s, now), 8) + " " +
                        fit(state, 10) + loop_columns(s));
    }
    return lines;
}

void LiveView::show(StatusBoard& board) {
    board.clear_wake();
    std::vector<StepLine> finished = board.take_lines();
    if (!terminal_) {
        for (const StepLine& l : finished) fprintf(out_, "%s\n", l.text.c_str());
        fflush(out_);
        return;
    }
    std::vector<std::string> lines = table_lines(board.rows(), std::chrono::steady_clock::now(), loop_);
    // A line that wrapped would throw the redraw off by a row.
    const int columns = pcos::terminal_columns(out_);
    if (columns > 1) {
        for (std::string& l : lines) {
            if (l.size() >= static_cast<size_t>(columns)) l.resize(static_cast<size_t>(columns) - 1u);
        }
    }
    std::string text;
    if (drawn_ > 0) text += "\x1b[" + std::to_string(drawn_) + "A";
    for (const std::string& l : lines) text += "\r\x1b[2K" + l + "\n";
    pcos::write_terminal(out_, text);
    drawn_ = lines.size();
}

}  // namespace station
