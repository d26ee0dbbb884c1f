// The report's page in a real browser: headless Chromium renders it (no
// network: the page must stand alone), dumps the DOM it built and takes a
// screenshot. The DOM must hold every chart with its bars, and the picture
// must show the charts' colours: the blue of the bars and the red of the
// flagged slot, not a blank page.
#include <array>
#include <cstdio>
#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <sstream>
#include <unistd.h>

#include "known_fixture.hpp"
#include "pc/results/report.hpp"
#include "png_pixels.hpp"
#include "scratch_dir.hpp"

using namespace results;

namespace {

const char kChromium[] = "/usr/bin/chromium";

std::string chromium(const results_test::ScratchDir& dir, const std::string& what) {
    return std::string(kChromium) +
           " --headless --no-sandbox --disable-gpu --disable-quic --no-first-run --disable-background-networking"
           " --disable-component-update --disable-sync --user-data-dir=" + dir.file("profile") + " " + what;
}

std::string run_output(const std::string& command) {
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return out;
    std::array<char, 4096> buffer;
    size_t n;
    while ((n = fread(buffer.data(), 1, buffer.size(), pipe)) > 0) out.append(buffer.data(), n);
    pclose(pipe);
    return out;
}

size_t count_of(const std::string& text, const std::regex& pattern) {
    return static_cast<size_t>(std::distance(std::sregex_iterator(text.begin(), text.end(), pattern), std::sregex_iterator()));
}

size_t pixels_near(const results_test::Pixels& p, uint8_t r, uint8_t g, uint8_t b) {
    size_t n = 0;
    for (size_t i = 0; i + 2 < p.rgb.size(); i += 3) {
        if (std::abs(p.rgb[i] - r) < 12 && std::abs(p.rgb[i + 1] - g) < 12 && std::abs(p.rgb[i + 2] - b) < 12) ++n;
    }
    return n;
}

}  // namespace

TEST(ResultsHtml, ChromiumDrawsEveryChartOfTheReportPage) {
    ASSERT_EQ(access(kChromium, X_OK), 0) << "chromium is missing: scripts/install-deps.sh installs it, "
                                             "or leave this test out with ctest -LE chromium";
    results_test::ScratchDir dir;
    std::string error;
    std::unique_ptr<Store> store = Store::open(dir.file("results.db"), &error);
    ASSERT_TRUE(store) << error;
    ASSERT_TRUE(results_test::write_known_fixture(*store, &error)) << error;
    ReportData data;
    ASSERT_TRUE(load_report_data(dir.file("results.db"), {}, &data, &error)) << error;
    Report report = compute_report(data);
    report.source = "records/results.db";
    const std::string page = dir.file("report.html");
    std::ofstream(page) << report_html(report);

    const std::string dom = run_output(chromium(dir, "--dump-dom file://" + page + " 2>/dev/null"));
    ASSERT_NE(dom.find("</html>"), std::string::npos) << "no DOM came back:\n" << dom.substr(0, 2000);
    for (const char* id : {"chart-yield", "chart-pareto", "chart-slots", "chart-durations", "chart-spread-1"}) {
        EXPECT_NE(dom.find(std::string("<svg xmlns=\"http://www.w3.org/2000/svg\" id=\"") + id), std::string::npos) << id;
    }
    EXPECT_EQ(count_of(dom, std::regex("class=\"bar pareto-bar\"")), 2u);
    EXPECT_EQ(count_of(dom, std::regex("class=\"bar bar-flagged\"")), 1u);  // slot 1
    EXPECT_EQ(count_of(dom, std::regex("class=\"bar duration-bar\"")), 4u);
    EXPECT_EQ(count_of(dom, std::regex("class=\"limit\"")), 2u);
    EXPECT_EQ(dom.find("<script"), std::string::npos);
    EXPECT_EQ(dom.find("http://"), dom.find("http://www.w3.org/2000/svg"));  // nothing fetched

    const std::string png = dir.file("report.png");
    run_output(chromium(dir, "--screenshot=" + png + " --window-size=1200,2600 file://" + page + " 2>&1"));
    results_test::Pixels pixels;
    ASSERT_TRUE(read_png(png, &pixels, &error)) << error;
    EXPECT_EQ(pixels.width, 1200);
    EXPECT_EQ(pixels.height, 2600);
    // Bars in the charts' blue (#1f6fb4) and the flagged slot's red (#d62728).
    EXPECT_GT(pixels_near(pixels, 0x1f, 0x6f, 0xb4), 20000u);
    EXPECT_GT(pixels_near(pixels, 0xd6, 0x27, 0x28), 1000u);
}
