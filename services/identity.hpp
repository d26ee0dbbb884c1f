// PC commands 45, 65, 67, 85 and 87: the software version, the production
// date and the board number.
#pragma once

#include "channel/amt_channel.hpp"

int treat_version_cmd(AmtChannel* row);
int treat_read_outdate_cmd(AmtChannel* row);
int treat_write_outdate_cmd(AmtChannel* row);
int treat_read_board_cmd(AmtChannel* row);
int treat_write_board_cmd(AmtChannel* row);
