#include "services/wf_id.hpp"

#include <atomic>

namespace {
std::atomic<uint32_t> g_wf_id{kNoWfId};
}

void set_wf_id(uint32_t value) { g_wf_id.store(value); }
uint32_t get_wf_id() { return g_wf_id.load(); }
