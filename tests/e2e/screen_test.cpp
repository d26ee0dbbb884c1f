// The "AMT MODE" picture on the phone: the agent in USB mode, with the
// framebuffer stand-in (tools/fbstub) preloaded, draws the picture after the
// handshake and shows it. The order of the driver requests, the pages drawn
// on other drivers and the driver's failures are checked in-process by
// tests/screen; that the agent serves on without a framebuffer, by the
// handshake tests. The drawn page is also written as a PNG next to the test
// output (test-output/amt_mode.png in the build tree), for a person to look at.
//
// The picture thread is started by the handshake. An agent that does not
// complete it here (no "handshake success." in its log) has no picture to
// check, and the test is skipped with that reason.
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "page_check.hpp"
#include "phone_test.hpp"
#include "tools/lib/png_file.hpp"

namespace e2e {
namespace {

constexpr size_t kMemoryBytes = 7372800;  // two 32-bit pages of 720 x 1280
constexpr char kUntouched = '\xA5';
constexpr const char* kNoHandshake =
    "the agent did not complete the handshake, so it starts no picture thread: "
    "this test needs the USB entry and its handshake";

class Screen : public PhoneTest {
protected:
    // A phone whose framebuffer is the stand-in, with `config` as the
    // driver's configuration and video memory filled with a pattern that
    // drawing never writes.
    bool make_phone_with_framebuffer(const std::string& config) {
        sandbox::PhoneSetup setup;
        // The stand-in comes ahead of the ASan runtime in a sanitized agent.
        const char* asan = getenv("ASAN_OPTIONS");
        std::string asan_options = std::string(asan && *asan ? std::string(asan) + ":" : "") +
                                   "verify_asan_link_order=0";
        setup.env = {{"LD_PRELOAD", OVTA_FBSTUB_PATH},
                     {"OVTA_FBSTUB_DIR", "/test-record"},
                     {"ASAN_OPTIONS", asan_options}};
        if (!make_phone(setup)) return false;
        return phone_->write_file("/test-record/fb-config", config) &&
               phone_->write_file("/test-record/fb-memory", std::string(kMemoryBytes, kUntouched));
    }

    std::vector<std::string> requests() const {
        return page_check::read_lines(phone_->host_path("/test-record/fb-requests"));
    }
    // Waits until the driver has been asked `line`; the picture thread shows
    // the picture three seconds after it prepared the screen.
    bool wait_for_request(const std::string& line) const {
        auto deadline = std::chrono::steady_clock::now() + 3s + kWait;
        while (std::chrono::steady_clock::now() < deadline) {
            for (const std::string& r : requests()) {
                if (r == line) return true;
            }
            std::this_thread::sleep_for(50ms);
        }
        return false;
    }
};

TEST_F(Screen, AfterTheHandshakeThePictureIsDrawnIntoThePageNotShownAndShown) {
    ASSERT_TRUE(make_phone_with_framebuffer("xres=720\nyres=1280\nyoffset=0\nsmem_len=7372800\n"));
    sandbox::Daemon* d = launch_with_pc();
    ASSERT_NE(d, nullptr);
    if (!d->wait_for_log("handshake success.", 5s)) GTEST_SKIP() << kNoHandshake;
    ASSERT_TRUE(wait_for_request("ZELQAFB_IOCTL_EN_LAYER 1"));

    std::vector<uint8_t> m = page_check::read_bytes(phone_->host_path("/test-record/fb-memory"));
    ASSERT_EQ(m.size(), kMemoryBytes);
    // The second page: 4 x 720 x 1280 bytes in, 720 x 1280 x 2 long.
    std::span<const uint8_t> page(m.data() + 3686400, 1843200);
    const std::string png = OVTA_BINARY_DIR "/test-output/amt_mode.png";
    EXPECT_TRUE(tools::write_png_rgb565(png, page, 720, 1280)) << png;
    std::string first;
    EXPECT_EQ(page_check::count_mismatches(page, 720, 1280, 445, 187, &first), 0u) << first;
    EXPECT_EQ(d->count_log("screen_init return error"), 0u);
}

}  // namespace
}  // namespace e2e
