#include "pc/station/run_folder.hpp"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

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
    if (mkdir(parent.c_str(), 0755) != 0 && errno != EEXIST) {
        *error = "cannot make " + parent + ": " + strerror(errno);
        return std::nullopt;
    }
    // mkdir fails on a folder that is there: two runs never share one.
    for (int n = 1; n < 1000; ++n) {
        const std::string path = parent + "/" + name + (n == 1 ? "" : "-" + std::to_string(n));
        if (mkdir(path.c_str(), 0755) == 0) return path;
        if (errno != EEXIST) {
            *error = "cannot make " + path + ": " + strerror(errno);
            return std::nullopt;
        }
    }
    *error = "too many runs named " + name + " in " + parent;
    return std::nullopt;
}

}  // namespace station
