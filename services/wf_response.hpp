// The last steps of every message the agent sends to wfmgr: the header, the
// total-length rule and the send on the wfmgr row. The caller writes the body
// at offset 20 of the buffer first; the header only touches bytes 0 to 19.
#pragma once

#include <cstddef>
#include <cstdint>

// Finishes the message (wf_id, body_len, total_len = 20 + body_len, then the
// total-length rule, whose up to 3 added bytes must lie inside `size`) and
// sends total_len bytes on the wfmgr row. Returns 0, -1 when the message could
// not be built ("construct add_wf_general_msg failure.", "call
// modify_total_len_by_mod4 failure."), or the failure result of
// write_msg_to_socket, logged as "write_msg_to_socket failure error:%d-%s".
int send_wf_message(uint8_t* msg, size_t size, uint32_t msg_id, uint32_t wf_id, uint32_t body_len);
