// The current wf_id: all ones until wfmgr confirms a load; forwarded PC
// requests carry it. Written on the wfmgr transfer thread, read on the PC one.
#pragma once

#include <cstdint>

constexpr uint32_t kNoWfId = 0xFFFFFFFFu;

void set_wf_id(uint32_t value);
uint32_t get_wf_id();
