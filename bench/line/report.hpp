// The benchmark's table: one row per figure, the agent's value beside its
// reference, both taken in the same run, and their ratio. Notes say what was
// skipped and why.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace linebench {

struct Row {
    std::string figure;
    std::string agent;
    std::string reference;
    std::string ratio;
    std::string goal;
};

class Report {
public:
    void add(Row row) { rows_.push_back(std::move(row)); }
    void note(std::string text) { notes_.push_back(std::move(text)); }
    void print(std::ostream& out) const;

private:
    std::vector<Row> rows_;
    std::vector<std::string> notes_;
};

// Number formatting for the cells.
std::string fixed(double v, int decimals);
std::string ratio_text(double agent, double reference);

// The q-quantile (0..1) of the samples, which it sorts.
double quantile(std::vector<double>& samples, double q);

}  // namespace linebench
