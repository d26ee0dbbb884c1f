// The two identity files: any text written through write_amt_text_file and
// read back through read_amt_text_file gives the text's first line (at most
// 98 bytes, one trailing CR or LF taken off), and a file of any content reads
// within its buffer.
//
// Input: 1 byte selecting the test, then the text or the file's bytes.
#include <cstdint>
#include <cstring>
#include <string>

#include "scratch_dir.hpp"
#include "services/amt_text_file.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::amt_directory();
    fuzz::skip_waits();
    if (size < 1) return 0;
    const char* text = reinterpret_cast<const char*>(data + 1);
    const size_t len = size - 1;
    char out[kAmtTextSize];
    if ((data[0] & 1) != 0) {
        fuzz::write_file(kBoardNoFile, text, len);
        read_amt_text_file(out, kBoardNoFile);
        if (memchr(out, '\0', sizeof(out)) == nullptr) __builtin_trap();
        return 0;
    }
    if (write_amt_text_file(text, len, kProductDateFile) != 0) return 0;
    std::string stored(text, strnlen(text, len));
    if (fuzz::read_file(kProductDateFile) != stored) __builtin_trap();
    if (read_amt_text_file(out, kProductDateFile) != 0) return 0;
    const size_t line_end = stored.find('\n');
    std::string want = stored.substr(0, line_end == std::string::npos ? stored.size() : line_end + 1);
    if (want.size() > 98) want.resize(98);
    if (!want.empty() && (want.back() == '\n' || want.back() == '\r')) want.pop_back();
    if (std::string(out) != want) __builtin_trap();
    return 0;
}
