// The test result store: any store content, then a read and a write of a
// station taken from the input. Whatever the store holds and whatever the
// description, a write keeps the store's line structure: it has as many
// "\r\n" as before. When every line of the store fits one piece of a read,
// the read and the write see the same lines, and a station found before the
// write is found after it, one missing stays missing.
//
// A longer line is seen differently by the two: the write takes up to 1022
// bytes in one piece and may match it, the read takes 498 and passes its first
// piece over. Replacing such a line by a short one makes the station readable,
// which is what the write was for.
//
// Input: 4 bytes site_no, 4 bytes result, 1 byte description length n, n
// bytes of description, then the store's bytes.
#include <cstdint>
#include <cstring>
#include <string>

#include "scratch_dir.hpp"
#include "services/test_result_store.hpp"

namespace {

// Whether every line, the last one without LF included, fits one read piece.
bool lines_fit_read(const std::string& text) {
    size_t start = 0;
    while (start < text.size()) {
        size_t lf = text.find('\n', start);
        size_t end = lf == std::string::npos ? text.size() : lf + 1;
        if (end - start > kStoreLineMax) return false;
        start = end;
    }
    return true;
}

size_t count_line_ends(const std::string& text) {
    size_t n = 0;
    for (size_t p = text.find("\r\n"); p != std::string::npos; p = text.find("\r\n", p + 2)) ++n;
    return n;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::amt_directory();
    fuzz::skip_waits();
    if (size < 9) return 0;
    const size_t desc_len = data[8];
    if (size < 9 + desc_len) return 0;
    const uint8_t* store = data + 9 + desc_len;
    const size_t store_len = size - 9 - desc_len;
    fuzz::write_file(kTestResultFile, store, store_len);

    // The request frame as it stands in temp_msg: zero behind the frame.
    uint8_t frame[24 + 256 + 4] = {};
    memcpy(frame + 16, data, 8);
    memcpy(frame + 24, data + 9, desc_len);
    uint32_t site_no = 0;
    memcpy(&site_no, data, 4);

    TestResultInfo before;
    get_test_result_info(site_no, &before);
    const std::string old_store = fuzz::read_file(kTestResultFile);
    if (modify_test_result_value(frame, sizeof(frame)) != 0) return 0;
    const std::string new_store = fuzz::read_file(kTestResultFile);
    if (count_line_ends(new_store) != count_line_ends(old_store)) __builtin_trap();
    if (!lines_fit_read(old_store)) return 0;
    TestResultInfo after;
    get_test_result_info(site_no, &after);
    if (after.result_code != before.result_code) __builtin_trap();
    return 0;
}
