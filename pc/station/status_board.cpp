#include "pc/station/status_board.hpp"

#include <sys/eventfd.h>
#include <unistd.h>

namespace station {

StatusBoard::StatusBoard(std::vector<SlotStatus> rows)
    : rows_(std::move(rows)), wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void StatusBoard::finished_step(size_t slot, std::string line) {
    {
        std::lock_guard<std::mutex> lock(mu_);
        lines_.push_back({slot, std::move(line)});
    }
    wake();
}

std::vector<SlotStatus> StatusBoard::rows() const {
    std::lock_guard<std::mutex> lock(mu_);
    return rows_;
}

std::vector<StepLine> StatusBoard::take_lines() {
    std::lock_guard<std::mutex> lock(mu_);
    std::vector<StepLine> out;
    out.swap(lines_);
    return out;
}

void StatusBoard::wake() {
    uint64_t one = 1;
    if (wake_.valid()) (void)!write(wake_.get(), &one, sizeof(one));
}

void StatusBoard::clear_wake() {
    uint64_t count = 0;
    if (wake_.valid()) (void)!read(wake_.get(), &count, sizeof(count));
}

}  // namespace station
