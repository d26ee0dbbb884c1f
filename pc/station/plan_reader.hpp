// Inside the plan's reading (pc/station/plan.hpp has its outside): the
// table of commands and the reader of one plan file, which refuses the
// plan at its first fault with "FILE:LINE: reason". plan_reader.cpp reads
// the top level and the steps, plan_expect.cpp the expectations,
// plan_commands.cpp holds the table.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <toml++/toml.h>
#include <vector>

#include "pc/station/plan.hpp"

namespace station {

struct CommandInfo {
    const char* name;
    Command command;
    std::vector<std::string> keys;  // beside name, command, timeout_ms and expect
};

const std::vector<CommandInfo>& commands();

// The expectation kinds that a command's answer can meet.
bool expectation_fits(Command c, const std::string& kind);

class PlanReader {
public:
    PlanReader(std::string path, std::string* error);

    std::optional<Plan> read(const toml::table& root);
    // Puts "FILE:LINE: why" (or "FILE: why" for line 0) into the error.
    std::nullopt_t fail(int line, const std::string& why);

private:
    template <typename T>
    static int line_of(const T& thing) {
        return static_cast<int>(thing.source().begin.line);
    }

    std::optional<int64_t> integer(const toml::node& node, const std::string& what, int64_t least, int64_t most);
    std::optional<uint32_t> u32(const toml::node& node, const std::string& what);
    std::optional<uint32_t> timeout(const toml::node& node);
    std::optional<std::string> text(const toml::node& node, const std::string& what);
    std::optional<std::vector<uint8_t>> hex(const toml::node& node, const std::string& what);
    // A file's bytes, at most `max`; a relative path is taken from the plan's folder.
    std::optional<std::vector<uint8_t>> file(const toml::node& node, const std::string& what, size_t max);
    // Placeholders in a text: only {board}, {slot} and {today}. Whether a
    // board number is there for {board} is the command line's to check.
    bool placeholders_ok(const std::string& t, int line, Plan& plan);
    std::optional<Step> read_step(const toml::table& t, uint32_t timeout_ms, Plan& plan);
    bool required(const Step& step, const std::map<std::string, bool>& seen);
    bool read_expectation(const toml::node& node, Step& step, Plan& plan);
    // The last rf write before `step` that covers exactly its range.
    static std::optional<size_t> find_write(const Step& step, const Plan& plan);

    std::string path_;
    std::string dir_;
    std::string* error_;
};

}  // namespace station
