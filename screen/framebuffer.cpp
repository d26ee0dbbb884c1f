// screen_init and screen_update: the framebuffer device, its mapping and the
// display layer of the platform's framebuffer driver.
//
// Runs on the picture thread only, one call of each per process. The device
// state is never destroyed: descriptor and mapping stay until the process
// ends (the picture thread may still be drawing while the process exits),
// and the screen is not restored. A later screen_init replaces them.
//
// Memory layout. The driver starts in its own mode, usually 32 bits a pixel;
// the agent switches it to 16 bits by FBIOPUT_VSCREENINFO after drawing. The
// second page therefore starts where it lies in the 32-bit layout, 4 x xres x
// yres bytes in, while inside the page a line is xres x 2 bytes. For the same
// reason line_length, which describes the driver's mode before the switch,
// is no guide to the 16-bit lines and is not used.
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <linux/fb.h>
#include <linux/kd.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

#include "process/unique_fd.hpp"
#include "screen/screen.hpp"
#include "screen/screen_image.hpp"
#include "screen/screen_log.hpp"

// Requests of the platform's framebuffer driver: write requests of type 'C'
// with a one-byte size, whose argument is the value itself, not a pointer.
constexpr unsigned long ZELQAFB_IOCTL_EN_LAYER = 0x40014309;                // 0 off, 1 on
constexpr unsigned long ZELQAFB_IOCTL_SET_LAYER_INPUT_FORMAT = 0x40014301;  // 1: 16-bit pixels
static_assert(ZELQAFB_IOCTL_EN_LAYER == _IOW('C', 9, uint8_t));
static_assert(ZELQAFB_IOCTL_SET_LAYER_INPUT_FORMAT == _IOW('C', 1, uint8_t));
static_assert(KDSETMODE == 0x4B3A && KD_GRAPHICS == 1);
static_assert(FBIOGET_FSCREENINFO == 0x4602 && FBIOGET_VSCREENINFO == 0x4600 && FBIOPUT_VSCREENINFO == 0x4601);

namespace {

constexpr const char* kFbDevice = "/dev/graphics/fb0";
constexpr const char* kConsoleDevice = "/dev/tty0";

class Mapping {
public:
    Mapping() = default;
    Mapping(void* addr, size_t len) : addr_(addr == MAP_FAILED ? nullptr : addr), len_(addr_ ? len : 0) {}
    ~Mapping() { reset(); }
    Mapping(Mapping&& other) noexcept
        : addr_(std::exchange(other.addr_, nullptr)), len_(std::exchange(other.len_, 0)) {}
    Mapping& operator=(Mapping&& other) noexcept {
        if (this != &other) {
            reset();
            addr_ = std::exchange(other.addr_, nullptr);
            len_ = std::exchange(other.len_, 0);
        }
        return *this;
    }
    uint8_t* data() const { return static_cast<uint8_t*>(addr_); }
    size_t size() const { return len_; }
    explicit operator bool() const { return addr_ != nullptr; }

private:
    void reset() {
        if (addr_ != nullptr) munmap(addr_, len_);
        addr_ = nullptr;
        len_ = 0;
    }
    void* addr_ = nullptr;
    size_t len_ = 0;
};

struct FbState {
    UniqueFd fd;
    Mapping memory;
    fb_fix_screeninfo fix{};
    fb_var_screeninfo var{};   // changed by screen_update and written back
    int layer_enable_count = 0;
};

FbState& fb_state() {
    static FbState* state = new FbState();
    return *state;
}

// Byte offset of the page that starts at line `yoffset` (4 bytes a pixel in
// this offset, see the top of the file), when that page of xres x yres x 2
// bytes lies wholly inside `memory_len` bytes. Every product is checked, so
// no driver's numbers can wrap the arithmetic into a false fit.
bool page_offset(uint32_t xres, uint32_t yres, uint32_t yoffset, size_t memory_len, size_t* offset) {
    size_t page_bytes = 0, start = 0, end = 0;
    if (__builtin_mul_overflow(size_t{xres}, size_t{yres}, &page_bytes) ||
        __builtin_mul_overflow(page_bytes, size_t{2}, &page_bytes) ||
        __builtin_mul_overflow(size_t{xres}, size_t{yoffset}, &start) ||
        __builtin_mul_overflow(start, size_t{4}, &start) || __builtin_add_overflow(start, page_bytes, &end) ||
        end > memory_len) {
        return false;
    }
    *offset = start;
    return true;
}

// The layer is switched off while its input format changes. When a step
// fails after the switch-off, it is switched on again, so the screen is not
// left dark.
int enable_layer_again() { return ioctl(fb_state().fd.get(), ZELQAFB_IOCTL_EN_LAYER, 1UL); }

}  // namespace

int screen_init() {
    // Graphics mode keeps the console from drawing over the picture; a phone
    // without the console device shows the picture all the same.
    {
        UniqueFd console(open(kConsoleDevice, O_RDWR | O_SYNC | O_CLOEXEC));
        if (console) ioctl(console.get(), KDSETMODE, static_cast<unsigned long>(KD_GRAPHICS));
    }
    UniqueFd fd(open(kFbDevice, O_RDWR | O_CLOEXEC));
    if (!fd) {
        screen_log(nullptr, "fb open failed!\n");
        return -1;
    }
    fb_fix_screeninfo fix{};
    fb_var_screeninfo var{};
    if (ioctl(fd.get(), FBIOGET_FSCREENINFO, &fix) < 0) {
        screen_log(nullptr, "fb ioctl FBIOGET_FSCREENINFO failed \n");
        return -1;
    }
    if (ioctl(fd.get(), FBIOGET_VSCREENINFO, &var) < 0) {
        screen_log(nullptr, "fb ioctl FBIOGET_VSCREENINFO failed \n");
        return -1;
    }
    Mapping memory(mmap(nullptr, fix.smem_len, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0), fix.smem_len);
    if (!memory) {
        screen_log(nullptr, "fb mapping failed!\n");
        return -1;
    }
    // A resolution beyond INT_MAX turns negative here and is refused as
    // smaller than the picture.
    if (screen_load_image(static_cast<int>(var.xres), static_cast<int>(var.yres)) != 0) return -1;

    FbState& state = fb_state();
    state.fd = std::move(fd);
    state.memory = std::move(memory);
    state.fix = fix;
    state.var = var;
    return 0;
}

int screen_update() {
    FbState& state = fb_state();
    if (!state.memory) {
        screen_log(nullptr, "fb not prepared, nothing shown\n");
        return -1;
    }
    fb_var_screeninfo& var = state.var;
    // The page not shown: the second when the driver shows the first.
    const uint32_t yoffset = var.yoffset == 0 ? var.yres : 0;
    size_t offset = 0;
    if (!page_offset(var.xres, var.yres, yoffset, state.memory.size(), &offset)) {
        char line[200];
        snprintf(line, sizeof(line), "fb memory of %zu bytes cannot hold a page of %ux%u at line %u, not drawn\n",
                 state.memory.size(), var.xres, var.yres, yoffset);
        screen_log(nullptr, line);
        return -1;
    }
    var.yoffset = yoffset;
    var.bits_per_pixel = 16;
    var.yres_virtual = 2 * var.yres;  // the page check bounds yres far below 2^31
    screen_draw_image(state.memory.data() + offset);

    const int fd = state.fd.get();
    if (state.layer_enable_count == 0) {
        if (ioctl(fd, ZELQAFB_IOCTL_EN_LAYER, 0UL) < 0) {
            screen_log(nullptr, "fb ioctl ZELQAFB_IOCTL_EN_LAYER failed \n");
            return -1;
        }
        if (ioctl(fd, ZELQAFB_IOCTL_SET_LAYER_INPUT_FORMAT, 1UL) < 0) {
            screen_log(nullptr, "fb ioctl ZELQAFB_IOCTL_SET_LAYER_INPUT_FORMAT failed \n");
            enable_layer_again();
            return -1;
        }
    }
    ioctl(fd, FBIOPUT_VSCREENINFO, &var);  // the flip; its result changes nothing here
    if (state.layer_enable_count == 0) {
        if (ioctl(fd, ZELQAFB_IOCTL_EN_LAYER, 1UL) < 0) {
            screen_log(nullptr, "fb ioctl ZELQAFB_IOCTL_EN_LAYER failed \n");
            enable_layer_again();
            return -1;
        }
        ++state.layer_enable_count;
    }
    return 0;
}
