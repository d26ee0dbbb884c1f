// RF table files: the lookup from a table_type to the file's full path under
// m_rf_relate_path, and the two routines that read or write a slice of a file
// by offset. The table flash commands of the PC and the file service for
// wfmgr stand on them.
//
// Runs on both transfer threads. Everything is kept in locals and in a FILE
// of the call's own; the RF table list and the base directory are copied out
// under their locks (rftab_list.hpp, config.hpp), so a refill on the other
// thread is seen whole or not at all. Two calls on one file are not serialised.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "services/factory_files.hpp"

// Path of the file of table_type: "%s%s" of m_rf_relate_path and the row's
// name into dst with a bound of len - 1, so at most len - 2 characters are
// stored. 0 found; -1 no row of that type (dst untouched); -103 for a null
// dst or a len of 0.
int get_rf_specified_file(char* dst, uint32_t len, uint32_t table_type);

// The same through a 128-byte buffer (at most 126 characters), copied into the
// caller's path buffer. 0 always: a table_type without a row gives an empty
// path, on which the file routines below fail.
int get_rf_code_full_file_name(uint32_t table_type, char (&dst)[kAmtPathSize]);

// Reads up to len bytes at offset into buf and stores the count in
// *readed_len. A count below len, 0 at or past the end included, is no
// failure: the caller judges it. 0; -1 when the file cannot be opened or
// sought; -102 for a null buf, path or count, or an empty path.
int read_binary_file(uint8_t* buf, const char* path, uint32_t offset, uint32_t len, uint32_t* readed_len);

// Writes len bytes from buf at offset into an existing file, which is never
// created nor shortened (a write past its end lengthens it), and stores the
// count in *writed_len. On success the file is closed and the sync ritual
// runs. 0; -1 when the file cannot be opened, sought or flushed (the count is
// then 0 and nothing is synced); -102 for a null buf, path or count, or an
// empty path. When the thread is asked to stop during the ritual the result
// is still 0: the caller sees pub_util_stop_requested() and answers nobody.
int modify_binary_file(const uint8_t* buf, const char* path, uint32_t offset, uint32_t len, uint32_t* writed_len);

// The one rule of every slice write that a peer asks for (PC command 63,
// wfmgr's 0x40005 and the 155 form of 0x40004): the len bytes to write must
// all have come with the request. `data` is what the request that arrived
// holds from the slice's first byte to its end (a PC frame's end is its
// frame_crc). False, with a log line that starts with `who`, when len reaches
// past it: the request is then answered as failed and no file is touched,
// since the bytes behind a message are the frame's CRC, zeros or what an
// earlier message left there, never data the peer sent.
bool slice_write_fits(const char* who, uint32_t len, std::span<const uint8_t> data);
