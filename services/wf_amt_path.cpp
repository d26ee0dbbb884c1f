#include "services/wf_amt_path.hpp"

#include <cstdio>
#include <cstring>

#include "process/pub_util.hpp"

namespace {

constexpr int kSlashesToKeep = 4;

}  // namespace

bool wf_name_stays_in_parent(const char* wf_name) {
    if (wf_name == nullptr) return true;
    if (strchr(wf_name, '/') != nullptr) return false;
    return strcmp(wf_name, ".") != 0 && strcmp(wf_name, "..") != 0;
}

int amt_path_rewrite_for_wf(char (&path)[kCfgPathSize], const char* wf_name) {
    if (!wf_name_stays_in_parent(wf_name)) {
        log_dbg("wf_name (%s) is not one directory of its own: m_amt_relate_path stays (%s).", wf_name, path);
        return kAmtPathNameRefused;
    }
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
