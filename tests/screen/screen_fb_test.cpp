// screen_init and screen_update in this process, against the framebuffer
// stand-in that ctest preloads (tools/fbstub): the requests the driver gets,
// in order, and every byte of its video memory.
//
// The screen state lives as long as the process, as on the phone, so each
// case needs a process of its own; ctest runs them one by one.
#include <algorithm>
#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "log_capture.hpp"
#include "page_check.hpp"
#include "screen/screen.hpp"

// The stand-in comes ahead of the ASan runtime in the list of libraries.
extern "C" const char* __asan_default_options() { return "verify_asan_link_order=0"; }

namespace {

namespace fs = std::filesystem;

constexpr uint8_t kUntouched = 0xA5;

// A 720 x 1280 driver in its 32-bit mode, two pages of video memory.
constexpr const char* k720x1280 = "xres=720\nyres=1280\nyoffset=0\nsmem_len=7372800\n";

// The whole run on a driver that shows its first page.
const std::vector<std::string> kInitRequests = {
    "open /dev/tty0",         "KDSETMODE 1",         "close /dev/tty0",
    "open /dev/graphics/fb0", "FBIOGET_FSCREENINFO", "FBIOGET_VSCREENINFO",
};
// Preparing the screen again closes the device prepared before.
const std::vector<std::string> kPreparedAgain = {
    "open /dev/tty0",      "KDSETMODE 1",         "close /dev/tty0",         "open /dev/graphics/fb0",
    "FBIOGET_FSCREENINFO", "FBIOGET_VSCREENINFO", "close /dev/graphics/fb0",
};
const std::vector<std::string> kUpdateRequests = {
    "ZELQAFB_IOCTL_EN_LAYER 0",
    "ZELQAFB_IOCTL_SET_LAYER_INPUT_FORMAT 1",
    "FBIOPUT_VSCREENINFO xres=720 yres=1280 xres_virtual=720 yres_virtual=2560 xoffset=0 yoffset=1280 "
    "bits_per_pixel=16",
    "ZELQAFB_IOCTL_EN_LAYER 1",
};

std::vector<std::string> join(std::vector<std::string> a, const std::vector<std::string>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

class ScreenOnFb : public ::testing::Test {
protected:
    void SetUp() override {
        // Without the stand-in the screen code would reach the host's real
        // console and framebuffer.
        ASSERT_NE(dlsym(RTLD_DEFAULT, "ovta_fbstub_present"), nullptr)
            << "run through ctest, which preloads the framebuffer stand-in (LD_PRELOAD)";
        const char* tmp = getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/ovta-fb-XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        dir_ = pattern;
        setenv("OVTA_FBSTUB_DIR", dir_.c_str(), 1);
    }
    void TearDown() override {
        std::error_code ec;
        if (!dir_.empty()) fs::remove_all(dir_, ec);
    }

    // The driver's configuration, and its video memory filled with a pattern
    // that drawing never writes.
    void driver(const std::string& config, size_t memory_bytes) {
        std::ofstream(dir_ + "/fb-config") << config;
        std::ofstream(dir_ + "/fb-memory", std::ios::binary)
            << std::string(memory_bytes, static_cast<char>(kUntouched));
    }
    std::vector<std::string> requests() const { return page_check::read_lines(dir_ + "/fb-requests"); }
    std::vector<uint8_t> memory() const { return page_check::read_bytes(dir_ + "/fb-memory"); }

    static bool untouched(const std::vector<uint8_t>& m, size_t from, size_t to) {
        return std::all_of(m.begin() + static_cast<long>(from), m.begin() + static_cast<long>(to),
                           [](uint8_t b) { return b == kUntouched; });
    }
    // Every pixel of the 720 x 1280 page at `offset`: the picture at row 445,
    // column 187, black elsewhere.
    static void expect_page(const std::vector<uint8_t>& m, size_t offset) {
        ASSERT_GE(m.size(), offset + 1843200);
        std::string first;
        std::span<const uint8_t> page(m.data() + offset, 1843200);
        EXPECT_EQ(page_check::count_mismatches(page, 720, 1280, 445, 187, &first), 0u) << first;
    }

    std::string dir_;
};

// ---- The ordinary run --------------------------------------------------------

TEST_F(ScreenOnFb, InitPreparesWithoutDrawingAndUpdateDrawsTheSecondPageFourBytesAPixelInAndShowsIt) {
    driver(k720x1280, 7372800);
    ASSERT_EQ(screen_init(), 0);
    EXPECT_EQ(requests(), kInitRequests);
    std::vector<uint8_t> m = memory();
    ASSERT_EQ(m.size(), 7372800u);
    EXPECT_TRUE(untouched(m, 0, m.size())) << "drawn before the update";

    EXPECT_EQ(screen_update(), 0);
    EXPECT_EQ(requests(), join(kInitRequests, kUpdateRequests));
    // The second page starts at 4 x 720 x 1280 = 3686400 and is 1843200 long.
    m = memory();
    ASSERT_EQ(m.size(), 7372800u);
    EXPECT_TRUE(untouched(m, 0, 3686400)) << "the page shown was written";
    expect_page(m, 3686400);
    EXPECT_TRUE(untouched(m, 5529600, 7372800)) << "written past the page";
}

TEST_F(ScreenOnFb, ASecondUpdateDrawsTheOtherPageAndOnlyFlips) {
    driver(k720x1280, 7372800);
    ASSERT_EQ(screen_init(), 0);
    ASSERT_EQ(screen_update(), 0);
    EXPECT_EQ(screen_update(), 0);
    std::vector<std::string> want = join(kInitRequests, kUpdateRequests);
    want.push_back(
        "FBIOPUT_VSCREENINFO xres=720 yres=1280 xres_virtual=720 yres_virtual=2560 xoffset=0 yoffset=0 "
        "bits_per_pixel=16");
    EXPECT_EQ(requests(), want);
    std::vector<uint8_t> m = memory();
    expect_page(m, 0);
    expect_page(m, 3686400);
}

TEST_F(ScreenOnFb, APhoneWithoutAUsableConsoleShowsThePictureAllTheSame) {
    driver(std::string(k720x1280) + "fail=KDSETMODE\n", 7372800);
    ASSERT_EQ(screen_init(), 0);
    EXPECT_EQ(screen_update(), 0);
    EXPECT_EQ(requests(), join(kInitRequests, kUpdateRequests));

    std::ofstream(dir_ + "/fb-config") << k720x1280 << "fail=open /dev/tty0\n";
    fs::remove(dir_ + "/fb-requests");
    EXPECT_EQ(screen_init(), 0);  // takes the place of the first
    EXPECT_EQ(requests(), (std::vector<std::string>{"open /dev/tty0", "open /dev/graphics/fb0", "FBIOGET_FSCREENINFO",
                                                    "FBIOGET_VSCREENINFO", "close /dev/graphics/fb0"}));
}

// ---- Failures of screen_init -------------------------------------------------

TEST_F(ScreenOnFb, EachFailureOfInitIsLoggedWithoutATagAndClosesTheDevice) {
    LogCapture log;
    // The host log shows a missing tag as the program's name.
    const std::string prefix = std::string("D/") + program_invocation_short_name + "(";
    struct Case {
        std::string config;
        std::string message;
        std::vector<std::string> requests_after_tty;
    };
    const Case cases[] = {
        {"fail=open /dev/graphics/fb0\n", "fb open failed!", {"open /dev/graphics/fb0"}},
        {"fail=FBIOGET_FSCREENINFO\n",
         "fb ioctl FBIOGET_FSCREENINFO failed ",
         {"open /dev/graphics/fb0", "FBIOGET_FSCREENINFO", "close /dev/graphics/fb0"}},
        {"fail=FBIOGET_VSCREENINFO\n",
         "fb ioctl FBIOGET_VSCREENINFO failed ",
         {"open /dev/graphics/fb0", "FBIOGET_FSCREENINFO", "FBIOGET_VSCREENINFO", "close /dev/graphics/fb0"}},
        // No memory to map.
        {"smem_len=0\n",
         "fb mapping failed!",
         {"open /dev/graphics/fb0", "FBIOGET_FSCREENINFO", "FBIOGET_VSCREENINFO", "close /dev/graphics/fb0"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        fs::remove(dir_ + "/fb-requests");
        driver("xres=720\nyres=1280\nsmem_len=7372800\n" + c.config, 0);
        EXPECT_EQ(screen_init(), -1);
        EXPECT_TRUE(log.contains(prefix + std::to_string(getpid()) + "): " + c.message + "\n"));
        EXPECT_EQ(requests(), join({"open /dev/tty0", "KDSETMODE 1", "close /dev/tty0"}, c.requests_after_tty));
    }
    // Nothing was prepared, so nothing is shown.
    fs::remove(dir_ + "/fb-requests");
    EXPECT_EQ(screen_update(), -1);
    EXPECT_TRUE(log.contains("): fb not prepared, nothing shown\n"));
    EXPECT_TRUE(requests().empty());
}

// ---- Screens and memories the picture does not fit ------------------------

TEST_F(ScreenOnFb, AScreenSmallerThanThePictureIsRefusedBeforeAnythingIsDrawn) {
    LogCapture log;
    driver("xres=320\nyres=480\nsmem_len=1228800\n", 1228800);
    EXPECT_EQ(screen_init(), -1);
    EXPECT_TRUE(log.contains("): screen 320x480 is smaller than the picture 346x390, not drawn\n"));
    EXPECT_EQ(requests(), join(kInitRequests, {"close /dev/graphics/fb0"}));
    EXPECT_EQ(screen_update(), -1);
    std::vector<uint8_t> m = memory();
    EXPECT_TRUE(untouched(m, 0, m.size()));
}

// A page that does not lie wholly inside the memory is refused before the
// layer is touched; one that ends exactly with the memory is drawn.
TEST_F(ScreenOnFb, AMemoryThatCannotHoldThePageIsRefusedWithoutTouchingTheLayer) {
    LogCapture log;
    std::vector<std::string> init_requests = kInitRequests;
    struct Case {
        const char* config;
        size_t memory;
        const char* message;
    };
    const Case cases[] = {
        // One byte short of 4 x 720 x 1280 + 720 x 1280 x 2.
        {"xres=720\nyres=1280\nsmem_len=5529599\n", 5529599,
         "): fb memory of 5529599 bytes cannot hold a page of 720x1280 at line 1280, not drawn\n"},
        // 65536 x 65536 x 2 is 0 in 32 bits.
        {"xres=65536\nyres=65536\nsmem_len=7372800\n", 7372800,
         "): fb memory of 7372800 bytes cannot hold a page of 65536x65536 at line 65536, not drawn\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.config);
        fs::remove(dir_ + "/fb-requests");
        driver(c.config, c.memory);
        ASSERT_EQ(screen_init(), 0);
        EXPECT_EQ(screen_update(), -1);
        EXPECT_TRUE(log.contains(c.message));
        EXPECT_EQ(requests(), init_requests);
        std::vector<uint8_t> m = memory();
        EXPECT_TRUE(untouched(m, 0, m.size()));
        init_requests = kPreparedAgain;
    }
    driver("xres=720\nyres=1280\nsmem_len=5529600\n", 5529600);
    ASSERT_EQ(screen_init(), 0);
    EXPECT_EQ(screen_update(), 0);
    std::vector<uint8_t> m = memory();
    EXPECT_TRUE(untouched(m, 0, 3686400));
    expect_page(m, 3686400);
}

// ---- Failures of the layer requests ------------------------------------------

// A step that fails after the layer was switched off switches it on again. The
// flip's own result changes nothing. Each case prepares the screen anew; the
// layer stays to be enabled until an update succeeds.
TEST_F(ScreenOnFb, FailedLayerRequestsEndTheUpdateAndLeaveTheLayerOn) {
    LogCapture log;
    std::vector<std::string> init_requests = kInitRequests;
    struct Case {
        const char* fail;
        int result;
        std::vector<std::string> update_requests;
    };
    const Case cases[] = {
        {"ZELQAFB_IOCTL_EN_LAYER 0", -1, {"ZELQAFB_IOCTL_EN_LAYER 0"}},
        {"ZELQAFB_IOCTL_SET_LAYER_INPUT_FORMAT", -1,
         {"ZELQAFB_IOCTL_EN_LAYER 0", "ZELQAFB_IOCTL_SET_LAYER_INPUT_FORMAT 1", "ZELQAFB_IOCTL_EN_LAYER 1"}},
        {"ZELQAFB_IOCTL_EN_LAYER 1", -1, join(kUpdateRequests, {"ZELQAFB_IOCTL_EN_LAYER 1"})},
        {"FBIOPUT_VSCREENINFO", 0, kUpdateRequests},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.fail);
        fs::remove(dir_ + "/fb-requests");
        driver(std::string(k720x1280) + "fail=" + c.fail + "\n", 7372800);
        ASSERT_EQ(screen_init(), 0);
        EXPECT_EQ(screen_update(), c.result);
        EXPECT_EQ(requests(), join(init_requests, c.update_requests));
        init_requests = kPreparedAgain;
    }
    EXPECT_EQ(log.count("): fb ioctl ZELQAFB_IOCTL_EN_LAYER failed \n"), 2u);
    EXPECT_EQ(log.count("): fb ioctl ZELQAFB_IOCTL_SET_LAYER_INPUT_FORMAT failed \n"), 1u);
}

}  // namespace
