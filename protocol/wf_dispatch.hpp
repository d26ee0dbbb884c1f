// Dispatch of wfmgr messages: answers to forwarded PC commands, the two base
// directories and the RF table list.
#pragma once

#include "channel/amt_channel.hpp"

int send_amt_info_to_pc();
int treat_default_msg(AmtChannel* row);
int treat_wfmgr_amt_info_trans_cnf_msg(AmtChannel* row);
int treat_wfmgr_amt_relate_info_ind_msg(AmtChannel* row);
int treat_wfmgr_amt_res_info_ind_msg(AmtChannel* row);

// Sub-command words at message offset 32 of an info transfer confirm.
constexpr uint32_t kFileReadSubCmd = 153;
constexpr uint32_t kFileModifySubCmd = 155;
