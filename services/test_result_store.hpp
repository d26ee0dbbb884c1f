// The per-station test result store: test_result.txt in the directory that
// amt_relate_path names at the moment of the call, one line per station,
// "%d,%d,%s\r\n" of station number, result and description.
//
// What is written and what is read back differ. A line counts only if it holds
// "\r\n"; its station number is at most its first two bytes, its result one
// digit, its description the bytes between the second comma and the "\r\n".
// The number of lines is never checked: a store of more or fewer than 64 lines
// is served as it is, and only a missing or empty store is made fresh.
//
// Runs on the PC transfer thread, one command at a time, so no lock guards the
// store. Every replacement of the store goes through file_replace.hpp: the
// store is whole at every instant.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <span>

constexpr const char* kTestResultFile = "test_result.txt";
constexpr const char* kTestResultTempFile = "test_result_temp001.txt";
constexpr int kFreshStations = 64;
constexpr size_t kDescriptionMax = 127;  // of a description read back
constexpr size_t kStoreLineSize = 512;   // the buffer of a written line
constexpr size_t kStoreLineMax = 498;    // a written line, "\r\n" included: what a read takes in one piece

constexpr uint32_t kResultStationFound = 0;
constexpr uint32_t kResultNoStation = 3;
constexpr uint32_t kResultStoreFailed = 10;

// Reads one piece of a line into buf: at most buf.size() - 2 bytes, ending
// behind the first LF, so that a longer line arrives in pieces. The rest of
// buf is zero. Returns the count of bytes read, 0 at the end of the file or
// on a read error.
size_t read_store_piece(FILE* file, std::span<char> buf);

// Whether a piece counts as a line: it holds "\r\n". Gives the offset of the
// first "\r\n" in `crlf`.
bool store_line_end(const char* line, size_t len, size_t* crlf);

// The station number of a line that counts. A first byte that is a digit
// gives its value, a second digit behind it makes it two-digit; a third is not
// looked at. A line that does not begin with a digit keeps the scan's number
// (the last one parsed, 0 at the start of the scan). Updates *number and
// returns the offset behind the digits taken.
size_t take_station_number(const char* line, size_t len, int32_t* number);

struct TestResultInfo {
    uint32_t result_code = kResultStoreFailed;  // kResultStationFound, kResultNoStation or kResultStoreFailed
    uint32_t station_result = 0;                // one digit, 0 unless found
    char description[kDescriptionMax + 1] = {};
    size_t description_len = 0;                 // 0 unless found
};

// The result and description of a station's line, from `cursor`, the offset
// behind its station number, up to `crlf`, the offset of its "\r\n".
void parse_station_fields(const char* line, size_t cursor, size_t crlf, TestResultInfo* out);

// The line that replaces a station's: "%d,%d,%s\r\n" of station, result and
// description. CR and LF bytes of the description are dropped, and the
// description is cut so that the whole line with its "\r\n" fits 498 bytes,
// the most a read takes in one piece (a longer line would be read back as two
// lines, the second with a station number made of description bytes), so
// a description can never break the store's line structure.
struct StoreLine {
    char text[kStoreLineSize] = {};
    size_t len = 0;
    size_t dropped_line_ends = 0;  // CR and LF bytes left out of the description
    size_t cut_bytes = 0;          // bytes cut off the end of the description
};
void format_test_result_line(StoreLine* out, int32_t station, int32_t result, const char* description,
                             size_t description_len);

// Copies the store from `in` to `out` with the first line of `site_no`
// replaced by `line`; every other byte is copied as it is. Returns 1 when a
// line was replaced, 0 when none matched (the copy is then the same bytes),
// -1 when reading or writing failed (the copy is then not to be used).
int rewrite_test_result_lines(FILE* in, FILE* out, uint32_t site_no, const StoreLine& line);

// Makes sure a non-empty store exists; a fresh one has stations 0 to 63 with
// result 0 and no description, 438 bytes. Returns 0, or -118 when it could not
// be made. A fresh store is followed by a pause of two seconds and one sync; a
// stop during them ends the wait at once (the store is already whole), and
// the caller checks pub_util_stop_requested().
int amt_init_test_result_file();

// The scan of a read: the first line of `site_no`.
void get_test_result_info(uint32_t site_no, TestResultInfo* out);

// Replaces the line of the request frame's site_no by its result and
// description (zero-terminated from offset 24, at most to the end of the
// frame's buffer of `size` bytes). Returns 0 (also when no line matched), -102
// when `message` is null or amt_relate_path is empty, -118 when a file could
// not be opened, read or written; the store then stands as it was.
int modify_test_result_value(const uint8_t* message, size_t size);
