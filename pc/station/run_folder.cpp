#include "pc/station/run_folder.hpp"

#include <filesystem>
#include <system_error>

namespace station {

std::string run_folder_name(const std::string& stamp, const std::string& plan_name) {
    std::string plan = plan_name;
    if (plan.size() > 5 && plan.compare(plan.size() - 5, 5, ".toml") == 0) plan.resize(plan.size() - 5);
    for (char& c : plan) {
        if (c == '/' || static_cast<unsigned char>(c) < 0x20) c = '_';
    }
    return plan.empty() ? stamp : stamp + "-" + plan;
}

std::optional<std::string> make_run_folder(const std::string& parent, const std::string& name, std::string* error) {
    namespace fs = std::filesystem;
    std::error_code ec;
    fs::create_directory(parent, ec);
    if (ec) {
        *error = "cannot make " + parent + ": " + ec.message();
        return std::nullopt;
    }
    // A folder that is there is not made again: two runs never share one.
    for (int n = 1; n < 1000; ++n) {
        const std::string path = parent + "/" + name + (n == 1 ? "" : "-" + std::to_string(n));
        if (fs::create_directory(path, ec)) return path;
        if (ec) {
            *error = "cannot make " + path + ": " + ec.message();
            return std::nullopt;
        }
    }
    *error = "too many runs named " + name + " in " + parent;
    return std::nullopt;
}

}  // namespace station
