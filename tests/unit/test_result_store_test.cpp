// The pure parts of the test result store: how a line's station, result and
// description are read, how a line is written, and the rewrite that keeps
// every other byte of the store.
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

#include "services/test_result_store.hpp"

namespace {

struct Parsed {
    bool counts = false;
    int32_t station = -1;
    TestResultInfo info;
};

// Reads `line` as the scan of a read does, with `number` as the scan's
// station number so far.
Parsed parse(const std::string& line, int32_t number = 0) {
    Parsed p;
    size_t crlf = 0;
    p.counts = store_line_end(line.data(), line.size(), &crlf);
    if (!p.counts) return p;
    size_t cursor = take_station_number(line.data(), line.size(), &number);
    p.station = number;
    parse_station_fields(line.data(), cursor, crlf, &p.info);
    return p;
}

std::string description(const Parsed& p) { return std::string(p.info.description, p.info.description_len); }

// The station is at most the first two digits: 123,4,x is station 12 with the
// cursor on the 3, which is then taken for the result. The result is one
// digit, and the description needs the comma behind it.
TEST(TestResultLine, StationIsTwoDigitsAtMostResultOneAndTheDescriptionNeedsTheCommaBehindIt) {
    struct Case {
        const char* line;
        int32_t station;
        uint32_t result;
        const char* description;
    };
    const Case cases[] = {
        {"5,1,x\r\n", 5, 1, "x"},    {"55,1,x\r\n", 55, 1, "x"}, {"79,0,\r\n", 79, 0, ""},
        {"123,4,x\r\n", 12, 3, "4,x"}, {"7,1\r\n", 7, 1, ""},       {"7,,abc\r\n", 7, 0, "abc"},
        {"7\r\n", 7, 0, ""},          {"7,1,a,b\r\n", 7, 1, "a,b"}, {"7,12,x\r\n", 7, 1, ""},
        {"7,-1,x\r\n", 7, 0, ""},     {"7,9,\r\n", 7, 9, ""},       {"7x1,y\r\n", 7, 0, ""},
        {"7,1,a\n", -1, 0, ""},  // no CR LF: no line
    };
    for (const Case& c : cases) {
        Parsed p = parse(c.line);
        EXPECT_EQ(p.station, c.station) << c.line;
        EXPECT_EQ(p.info.station_result, c.result) << c.line;
        EXPECT_EQ(description(p), c.description) << c.line;
    }
    EXPECT_EQ(description(parse("7,1," + std::string(200, 'd') + "\r\n")), std::string(127, 'd'));
}

std::string format(int32_t station, int32_t result, const std::string& desc, StoreLine* out = nullptr) {
    StoreLine line;
    format_test_result_line(&line, station, result, desc.data(), desc.size());
    if (out != nullptr) *out = line;
    return std::string(line.text, line.len);
}

TEST(TestResultLine, DescriptionLineEndsAreDroppedAndALongOneIsCutToWhatAReadTakesWhole) {
    StoreLine line;
    EXPECT_EQ(format(7, -5, "a\r\nb\rc\n", &line), "7,-5,abc\r\n");  // the result word printed signed
    EXPECT_EQ(line.dropped_line_ends, 4u);
    EXPECT_EQ(line.cut_bytes, 0u);

    std::string fits(492, 'x');  // "7,1," + 492 + CR LF = 498, one piece of a read
    EXPECT_EQ(format(7, 1, fits, &line), "7,1," + fits + "\r\n");
    EXPECT_EQ(line.cut_bytes, 0u);
    EXPECT_EQ(format(7, 1, std::string(900, 'x'), &line), "7,1," + fits + "\r\n");
    EXPECT_EQ(line.len, 498u);
    EXPECT_EQ(line.cut_bytes, 408u);
    EXPECT_EQ(format(-2147483647 - 1, -2147483647 - 1, std::string(900, 'x'), &line).size(), 498u);
}

// A stream over a copy of `text`, read or written like a file.
struct MemFile {
    explicit MemFile(const std::string& text) : f(tmpfile()) {
        fwrite(text.data(), 1, text.size(), f);
        rewind(f);
    }
    ~MemFile() { fclose(f); }
    std::string content() const {
        std::string out;
        rewind(f);
        char buf[4096];
        for (size_t n; (n = fread(buf, 1, sizeof(buf), f)) > 0;) out.append(buf, n);
        return out;
    }
    FILE* f;
};

std::string fresh() {
    std::string s;
    for (int i = 0; i < 64; ++i) s += std::to_string(i) + ",0,\r\n";
    return s;
}

int rewrite(const std::string& store, uint32_t site, const std::string& line_text, std::string* out_text) {
    MemFile in(store);
    MemFile out("");
    StoreLine line;
    format_test_result_line(&line, static_cast<int32_t>(site), 1, line_text.data(), line_text.size());
    int r = rewrite_test_result_lines(in.f, out.f, site, line);
    *out_text = out.content();
    return r;
}

// The first line of the station is replaced and every other byte kept, with
// lines of every kind around the match: LF only, no digit, binary bytes, a
// line longer than one piece, a second line of the same station. Station 5
// is not 55; a line without a digit counts as the station above it (station
// 0 at the top); no match copies the store unchanged.
TEST(TestResultRewrite, ReplacesTheFirstLineOfTheStationByItsWholeNumberAndKeepsEveryOtherByte) {
    const std::string before = "0,0,\r\n1,0,\n" + std::string("\x01\x02\x00zz\r\n", 7);
    const std::string after = std::string(1500, 'L') + "\r\n12,5,second\r\n" + std::string("no end\0x", 8);
    std::string fresh55 = fresh();
    const std::string line55 = "\n55,0,\r\n";
    fresh55.replace(fresh55.find(line55), line55.size(), "\n55,1,x\r\n");
    struct Case {
        std::string store;
        uint32_t station;
        int result;
        std::string after;
    };
    const Case cases[] = {
        {before + "12,0,old\r\n" + after, 12, 1, before + "12,1,x\r\n" + after},
        {fresh(), 55, 1, fresh55},
        {"3,0,\r\nxx\r\n", 3, 1, "3,1,x\r\nxx\r\n"},
        {"xx\r\n3,0,\r\n", 0, 1, "0,1,x\r\n3,0,\r\n"},
        {fresh(), 64, 0, fresh()},
        {"0,0,\n1,0,\n2,0,\n", 1, 0, "0,0,\n1,0,\n2,0,\n"},
    };
    for (const Case& c : cases) {
        std::string got;
        EXPECT_EQ(rewrite(c.store, c.station, "x", &got), c.result) << c.station;
        EXPECT_EQ(got, c.after) << c.station;
    }
}

TEST(TestResultRewrite, LongLinesArriveInPiecesAndOnlyAPieceWithCrLfCounts) {
    MemFile in(std::string(700, '7') + "\r\n");
    char piece[500];
    EXPECT_EQ(read_store_piece(in.f, piece), 498u);
    size_t crlf = 0;
    EXPECT_FALSE(store_line_end(piece, 498, &crlf));
    EXPECT_EQ(read_store_piece(in.f, piece), 204u);
    EXPECT_TRUE(store_line_end(piece, 204, &crlf));
    EXPECT_EQ(crlf, 202u);
    EXPECT_EQ(read_store_piece(in.f, piece), 0u);

    // A write takes up to 1022 bytes in one piece, so it matches a line that a
    // read passes over, and the short line that replaces it is readable.
    std::string got;
    const std::string long_line = "7,0," + std::string(600, 'x') + "\r\n";
    EXPECT_EQ(rewrite("6,0,\r\n" + long_line + "8,0,\r\n", 7, "x", &got), 1);
    EXPECT_EQ(got, "6,0,\r\n7,1,x\r\n8,0,\r\n");
}

}  // namespace
