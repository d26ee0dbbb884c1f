// PC commands 89 and 91: the per-station test result store.
#pragma once

#include "channel/amt_channel.hpp"

int treat_read_test_result_cmd(AmtChannel* row);
int treat_write_test_result_cmd(AmtChannel* row);
