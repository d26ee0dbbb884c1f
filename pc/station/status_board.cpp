#include "pc/station/status_board.hpp"

namespace station {

StatusBoard::StatusBoard(std::vector<SlotStatus> rows) : rows_(std::move(rows)) {}

void StatusBoard::finished_step(size_t slot, std::string line) {
    {
        std::lock_guard<std::mutex> lock(mu_);
        lines_.push_back({slot, std::move(line)});
        changed_ = true;
    }
    changed_cv_.notify_all();
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

bool StatusBoard::wait_for_change(std::chrono::milliseconds wait) {
    std::unique_lock<std::mutex> lock(mu_);
    return changed_cv_.wait_for(lock, wait, [this] { return changed_; });
}

void StatusBoard::clear_wake() {
    std::lock_guard<std::mutex> lock(mu_);
    changed_ = false;
}

}  // namespace station
