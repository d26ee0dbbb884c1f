// The Linux half of the port names: a path, or a glob over /dev.
#include <algorithm>
#include <glob.h>

#include "pc/os/line.hpp"

namespace pcos {

bool is_line_pattern(const std::string& name) { return name.find_first_of("*?[") != std::string::npos; }

std::vector<std::string> list_lines(const std::string& pattern) {
    std::vector<std::string> names;
    glob_t found{};
    if (glob(pattern.c_str(), 0, nullptr, &found) == 0) {
        for (size_t i = 0; i < found.gl_pathc; ++i) names.emplace_back(found.gl_pathv[i]);
    }
    globfree(&found);
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace pcos
