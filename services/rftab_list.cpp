#include "services/rftab_list.hpp"

#include <cstring>
#include <mutex>

#include "wire/bytes.hpp"

namespace {

std::mutex g_rftab_lock;  // guards both below
uint8_t wfmgr_rftab_info_t_list[kRftabListSize];
uint32_t g_wfmgr_rftab_info_count = 0;

}  // namespace

void rftab_list_clear() {
    std::lock_guard<std::mutex> hold(g_rftab_lock);
    g_wfmgr_rftab_info_count = 0;
}

uint32_t rftab_list_replace(const uint8_t* rows, uint32_t len) {
    if (len > kRftabListSize) len = kRftabListSize;
    std::lock_guard<std::mutex> hold(g_rftab_lock);
    g_wfmgr_rftab_info_count = static_cast<uint32_t>(len / kRftabRowSize);
    if (rows != nullptr && len > 0) memcpy(wfmgr_rftab_info_t_list, rows, len);
    return g_wfmgr_rftab_info_count;
}

uint32_t rftab_list_count() {
    std::lock_guard<std::mutex> hold(g_rftab_lock);
    return g_wfmgr_rftab_info_count;
}

bool rftab_list_find(uint32_t table_type, char (&name)[kRftabNameSize]) {
    std::lock_guard<std::mutex> hold(g_rftab_lock);
    std::span<const uint8_t> list(wfmgr_rftab_info_t_list);
    for (uint32_t i = 0; i < g_wfmgr_rftab_info_count; ++i) {
        size_t row = i * kRftabRowSize;
        if (bytes::get_le16(list, row) != table_type) continue;
        memcpy(name, wfmgr_rftab_info_t_list + row + kRftabNameOffset, kRftabNameSize);
        name[kRftabNameSize - 1] = '\0';
        return true;
    }
    return false;
}
