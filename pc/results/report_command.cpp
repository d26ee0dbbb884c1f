#include "pc/results/commands.hpp"

#include <cstdio>

namespace results {

int report_command(int, char**) {
    fputs("ovta-station report: not built yet\n", stderr);
    return 2;
}

}  // namespace results
