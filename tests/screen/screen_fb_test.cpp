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

// A second update draws the other page and only flips.
TEST_F(ScreenOnFb, InitPreparesWithoutDrawingAndEachUpdateDrawsThePageNotShownAndShowsIt) {
    driver(k720x1280, 7372800);
    ASSERT_EQ(screen_init(), 0);
    EXPECT_EQ(requests(), kInitRequests);
    std::vector<uint8_t> m = memory();
    ASSERT_EQ(m.size(), 7372800u);
    EXPECT_TRUE(untouched(m, 0, m.size())) << "drawn before the update";

    EXPECT_EQ(screen_update(), 0);
    std::vector<std::string> want = join(kInitRequests, kUpdateRequests);
    EXPECT_EQ(requests(), want);
    // The second page starts at 4 x 720 x 1280 = 3686400 and is 1843200 long.
    m = memory();
    ASSERT_EQ(m.size(), 7372800u);
    EXPECT_TRUE(untouched(m, 0, 3686400)) << "the page shown was written";
    expect_page(m, 3686400);
    EXPECT_TRUE(untouched(m, 5529600, 7372800)) << "written past the page";

    EXPECT_EQ(screen_update(), 0);
    want.push_back(
        "FBIOPUT_VSCREENINFO xres=720 yres=1280 xres_virtual=720 yres_virtual=2560 xoffset=0 yoffset=0 "
        "bits_per_pixel=16");
    EXPECT_EQ(requests(), want);
    m = memory();
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

// A screen smaller than the picture is refused as well, before anything is
// drawn; that line comes from the picture code and carries its tag.
TEST_F(ScreenOnFb, EachFailureOfInitIsLoggedAndClosesTheDevice) {
    LogCapture log;
    const std::string pid = std::to_string(getpid());
    // The host log shows a missing tag as the program's name.
    const std::string untagged = std::string("D/") + program_invocation_short_name + "(" + pid + "): ";
    const std::vector<std::string> fb_prepared = {"open /dev/graphics/fb0", "FBIOGET_FSCREENINFO",
                                                  "FBIOGET_VSCREENINFO", "close /dev/graphics/fb0"};
    struct Case {
        std::string config;
        std::string line;
        std::vector<std::string> requests_after_tty;
    };
    const Case cases[] = {
        {"smem_len=7372800\nfail=open /dev/graphics/fb0\n", untagged + "fb open failed!\n",
         {"open /dev/graphics/fb0"}},
        {"smem_len=7372800\nfail=FBIOGET_FSCREENINFO\n", untagged + "fb ioctl FBIOGET_FSCREENINFO failed \n",
         {"open /dev/graphics/fb0", "FBIOGET_FSCREENINFO", "close /dev/graphics/fb0"}},
        {"smem_len=7372800\nfail=FBIOGET_VSCREENINFO\n", untagged + "fb ioctl FBIOGET_VSCREENINFO failed \n",
         fb_prepared},
        {"smem_len=0\n", untagged + "fb mapping failed!\n", fb_prepared},  // no memory to map
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        fs::remove(dir_ + "/fb-requests");
        driver("xres=720\nyres=1280\n" + c.config, 0);
        EXPECT_EQ(screen_init(), -1);
        EXPECT_TRUE(log.contains(c.line));
        EXPECT_EQ(requests(), join({"open /dev/tty0", "KDSETMODE 1", "close /dev/tty0"}, c.requests_after_tty));
    }
    fs::remove(dir_ + "/fb-requests");
    driver("xres=320\nyres=480\nsmem_len=1228800\n", 1228800);
    EXPECT_EQ(screen_init(), -1);
    EXPECT_TRUE(log.contains("D/CHARGE_ONLY_MODE(" + pid + "): screen 320x480 is smaller than the picture 346x390, "
                             "not drawn\n"));
    EXPECT_EQ(requests(), join(kInitRequests, {"close /dev/graphics/fb0"}));
    // Nothing was prepared, so nothing is shown.
    fs::remove(dir_ + "/fb-requests");
    EXPECT_EQ(screen_update(), -1);
    EXPECT_TRUE(log.contains("): fb not prepared, nothing shown\n"));
    EXPECT_TRUE(requests().empty());
    std::vector<uint8_t> m = memory();
    EXPECT_TRUE(untouched(m, 0, m.size()));
}

// ---- Failures of screen_update ------------------------------------------------

// A page that does not lie wholly inside the memory is refused before the
// layer is touched; one that ends exactly with the memory is drawn. A layer
// step that fails after the layer was switched off switches it on again; the
// flip's own result changes nothing. Each case prepares the screen anew; the
// layer stays to be enabled until an update succeeds.
TEST_F(ScreenOnFb, FailedUpdatesLeaveTheLayerOnAndAPageOutsideTheMemoryIsNotDrawn) {
    LogCapture log;
    std::vector<std::string> init_requests = kInitRequests;
    struct Case {
        std::string config;
        size_t memory;
        int result;
        std::vector<std::string> update_requests;
        const char* message;
    };
    const Case cases[] = {
        // One byte short of 4 x 720 x 1280 + 720 x 1280 x 2.
        {"xres=720\nyres=1280\nsmem_len=5529599\n", 5529599, -1, {},
         "): fb memory of 5529599 bytes cannot hold a page of 720x1280 at line 1280, not drawn\n"},
        // 65536 x 65536 x 2 is 0 in 32 bits.
        {"xres=65536\nyres=65536\nsmem_len=7372800\n", 7372800, -1, {},
         "): fb memory of 7372800 bytes cannot hold a page of 65536x65536 at line 65536, not drawn\n"},
        {std::string(k720x1280) + "fail=ZELQAFB_IOCTL_EN_LAYER 0\n", 7372800, -1, {"ZELQAFB_IOCTL_EN_LAYER 0"},
         "): fb ioctl ZELQAFB_IOCTL_EN_LAYER failed \n"},
        {std::string(k720x1280) + "fail=ZELQAFB_IOCTL_SET_LAYER_INPUT_FORMAT\n", 7372800, -1,
         {"ZELQAFB_IOCTL_EN_LAYER 0", "ZELQAFB_IOCTL_SET_LAYER_INPUT_FORMAT 1", "ZELQAFB_IOCTL_EN_LAYER 1"},
         "): fb ioctl ZELQAFB_IOCTL_SET_LAYER_INPUT_FORMAT failed \n"},
        {std::string(k720x1280) + "fail=ZELQAFB_IOCTL_EN_LAYER 1\n", 7372800, -1,
         join(kUpdateRequests, {"ZELQAFB_IOCTL_EN_LAYER 1"}), "): fb ioctl ZELQAFB_IOCTL_EN_LAYER failed \n"},
        {std::string(k720x1280) + "fail=FBIOPUT_VSCREENINFO\n", 7372800, 0, kUpdateRequests, nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.config);
        fs::remove(dir_ + "/fb-requests");
        driver(c.config, c.memory);
        ASSERT_EQ(screen_init(), 0);
        EXPECT_EQ(screen_update(), c.result);
        EXPECT_TRUE(c.message == nullptr || log.contains(c.message));
        EXPECT_EQ(requests(), join(init_requests, c.update_requests));
        if (c.update_requests.empty()) {
            std::vector<uint8_t> m = memory();
            EXPECT_TRUE(untouched(m, 0, m.size()));
        }
        init_requests = kPreparedAgain;
    }
    EXPECT_EQ(log.count("): fb ioctl ZELQAFB_IOCTL_EN_LAYER failed \n"), 2u);
    driver("xres=720\nyres=1280\nsmem_len=5529600\n", 5529600);
    ASSERT_EQ(screen_init(), 0);
    EXPECT_EQ(screen_update(), 0);
    std::vector<uint8_t> m = memory();
    EXPECT_TRUE(untouched(m, 0, 3686400));
    expect_page(m, 3686400);
}

}  // namespace
