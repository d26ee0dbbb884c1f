// The two one-line identity files, product_date.txt and board_no.txt, in the
// directory that amt_relate_path names at the moment of the call (wfmgr and
// the enter-AMT command can change it while the agent runs).
//
// Runs on the PC transfer thread, one command at a time, so nothing else
// writes these files meanwhile.
#pragma once

#include <cstddef>

constexpr const char* kProductDateFile = "product_date.txt";
constexpr const char* kBoardNoFile = "board_no.txt";
constexpr size_t kAmtTextSize = 100;

// Replaces the named file by `text`: the bytes up to its first zero byte, and
// at most `max_len` of them (a text taken from a message may have no zero
// byte before the message's end). No line end is added. The old content
// stays whole until the new one is on storage (see file_replace.hpp); then the
// sync ritual runs. Returns 0 when the text was stored, -101 for a null or
// empty text (the file is not touched), -118 when the file could not be
// written (the old content stands). A stop of the thread during the ritual
// leaves the result as it is; the caller checks pub_util_stop_requested().
int write_amt_text_file(const char* text, size_t max_len, const char* file_name);

// Fills `out` with the first line of the named file, at most 98 bytes,
// zero-terminated, with one trailing LF or CR taken off. Returns 0, or -118
// when nothing could be read (no file, an empty file, a read error).
int read_amt_text_file(char (&out)[kAmtTextSize], const char* file_name);
