// The wfmgr message a handler was given. temp_msg of the wfmgr row is not
// cleared between messages, so the bytes behind the received message are what
// earlier, longer messages left there: a handler reads only inside this span,
// and a field that the message does not hold reads as missing, never as stale.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "channel/amt_channel.hpp"

inline std::span<const uint8_t> wf_received_message(const AmtChannel& row) {
    size_t len = row.temp_msg_process_len > 0 ? static_cast<size_t>(row.temp_msg_process_len) : 0;
    return {row.temp_msg, len < kTempMsgSize ? len : kTempMsgSize};
}
