// Dispatch of PC frames: the pre-response, the agent's own commands, and the
// forwarding of every other command number to wfmgr.
#pragma once

#include <cstdint>

#include "channel/amt_channel.hpp"
#include "protocol/pc_frame.hpp"

// Payloads on their way to wfmgr and to the PC. The first is used only by the
// PC transfer thread, the second only by the wfmgr transfer thread.
extern AmtPayloadStore amt_info_trans_req_store;
extern AmtPayloadStore amt_info_trans_cnf_store;

// A command the agent answers itself.
struct PcCommand {
    uint32_t cmd;
    const char* name;
    int (*handler)(AmtChannel* row);
};

// The handler of a command number, or null when the frame goes to wfmgr.
const PcCommand* find_pc_command(uint32_t cmd);

int amt_handle_send_pre_rsp_for_pc();
int treat_default_msg_ex(AmtChannel* row);
int send_amt_info_trans_req_msg(uint32_t wf_id);
