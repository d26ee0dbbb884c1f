// The last steps of every response the agent sends to the PC: the general
// header, frame_len, the CRC and the send on the PC row. The caller writes the
// body at offset 16 of the frame first; the header only touches bytes 0 to 15.
#pragma once

#include <cstddef>
#include <cstdint>

// Finishes the frame in place: the general header with `cmd`, frame_len =
// 12 + body_len and frame_crc at 16 + body_len. Returns 0, or -1 when the frame
// could not be built ("construct add_amt_cmd_general_msg failure.", "call
// add_amt_crc failure.", or a body that leaves no room for the CRC in `size`).
// For a handler that logs the finished frame before it goes out.
int build_pc_response(uint8_t* frame, size_t size, uint32_t cmd, uint32_t body_len);

// Sends the frame_len + 8 bytes of a frame finished by build_pc_response on the
// PC row. Returns 0, or the failure result of write_msg_to_socket, logged as
// "write_msg_to_socket failure error:%d-%s".
int send_built_pc_response(const uint8_t* frame, uint32_t body_len);

// Both steps: builds the frame and sends it. Returns 0, -1 when the frame could
// not be built, or the failure result of write_msg_to_socket.
int send_pc_response(uint8_t* frame, size_t size, uint32_t cmd, uint32_t body_len);
