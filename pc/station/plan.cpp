#include "pc/station/plan.hpp"

#include <fstream>
#include <sstream>
#include <toml++/toml.h>

#include "pc/station/plan_reader.hpp"

namespace station {

std::optional<Plan> parse_plan_text(const std::string& text, const std::string& path, std::string* error) {
    PlanReader reader(path, error);
    try {
        toml::table root = toml::parse(text, path);
        return reader.read(root);
    } catch (const toml::parse_error& e) {
        return reader.fail(static_cast<int>(e.source().begin.line), std::string(e.description()));
    }
}

std::optional<Plan> parse_plan(const std::string& path, std::string* error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        *error = path + ": cannot be read";
        return std::nullopt;
    }
    std::stringstream text;
    text << in.rdbuf();
    return parse_plan_text(text.str(), path, error);
}

std::string expand(const std::string& text, const std::string& board, size_t slot, const std::string& today) {
    std::string out;
    for (size_t at = 0; at < text.size();) {
        if (text.compare(at, 7, "{board}") == 0) {
            out += board;
            at += 7;
        } else if (text.compare(at, 6, "{slot}") == 0) {
            out += std::to_string(slot);
            at += 6;
        } else if (text.compare(at, 7, "{today}") == 0) {
            out += today;
            at += 7;
        } else {
            out.push_back(text[at++]);
        }
    }
    return out;
}

}  // namespace station
