#include "services/wf_amt_path.hpp"

#include <cstdio>
#include <cstring>

#include "process/pub_util.hpp"

namespace {

constexpr int kSlashesToKeep = 4;

}  // namespace

int amt_path_rewrite_for_wf(char (&path)[kCfgPathSize], const char* wf_name) {
    size_t cut = 0;
    int slashes = 0;
    for (size_t i = 0; i < kCfgPathSize && path[i] != '\0'; ++i) {
        if (path[i] == '/' && ++slashes == kSlashesToKeep) {
            cut = i + 1;
            break;
        }
    }
    log_dbg("m_amt_relate_path is (%s).", path);
    if (slashes < kSlashesToKeep) {
        log_dbg("count is not 4");
        return kAmtPathNoFourthSlash;
    }
    memset(path + cut, 0, kCfgPathSize - cut);
    log_dbg("m_amt_relate_path is (%s).", path);
    char joined[kCfgPathSize] = {};
    snprintf(joined, sizeof(joined), "%s%s/", path, wf_name != nullptr ? wf_name : "");
    memcpy(path, joined, sizeof(joined));
    log_dbg("m_amt_relate_path is (%s).", path);
    return kAmtPathRewritten;
}
