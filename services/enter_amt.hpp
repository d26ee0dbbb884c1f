// Enter AMT: PC command 17 and wfmgr's load confirm 0x40002, which answers it
// with response 18 and sets the current wf_id.
//
// Command 17 (frame offsets): amt_mode u32 at 16, of which only the low byte
// counts; wf_name at 20, zero-terminated, at most 64 characters.
// Load request 0x40001 (message offsets): wf_name at 20 in 64 bytes without
// terminator, amt_mode's low byte at 84; body_len 68, total_len 88.
// Load confirm 0x40002: wf_id u32 at 20 (the header's is not read),
// error_cause u8 at 24, 0 for loaded.
#pragma once

#include <cstddef>
#include <cstdint>

#include "channel/amt_channel.hpp"

constexpr uint32_t kCmdEnterAmt = 17;
constexpr uint32_t kRspEnterAmt = 18;
constexpr size_t kEnterOffMode = 16;
constexpr size_t kEnterOffWfName = 20;
constexpr size_t kWfNameFieldSize = 64;
constexpr uint8_t kModePathRewrite = 4;

constexpr size_t kLoadReqBufSize = 100;
constexpr uint32_t kLoadReqBodyLen = 68;
constexpr size_t kLoadReqOffWfName = 20;
constexpr size_t kLoadReqOffMode = 84;

constexpr size_t kLoadCnfOffWfId = 20;
constexpr size_t kLoadCnfOffCause = 24;

// PC transfer thread. Modes other than 4 send the load request and leave the
// PC with the pre-response until the load confirm; mode 4 rewrites
// m_amt_relate_path and answers response 18 at once. 0; -102 for a null row;
// -100 for an empty wf_name or a failed send (the PC then has only the
// pre-response).
int treat_ovta_enter_amt_cmd(AmtChannel* row);

// wfmgr transfer thread. error_cause 0 sets wf_id from the body and answers
// result_code 0; any other cause keeps the current wf_id and answers 10.
int treat_wfmgr_amt_load_cnf_msg(AmtChannel* row);
