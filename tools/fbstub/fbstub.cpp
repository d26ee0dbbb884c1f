// A stand-in for the phone's framebuffer driver, preloaded (LD_PRELOAD) into
// the program under test. It answers the framebuffer requests of the screen
// code over a regular file that plays the video memory, and writes down each
// request in order, so a test can check what was asked and every pixel drawn.
//
// Its files lie in the directory named by OVTA_FBSTUB_DIR, /test-record when
// that is unset:
//   fb-config    "key=value" lines, read at each open: xres, yres, yoffset,
//                smem_len, line_length (default xres x bits_per_pixel / 8),
//                bits_per_pixel (default 32); and any number of
//                "fail=<request>" lines: a request whose record line is the
//                text, or starts with the text and a blank, fails (EIO; an
//                open fails with ENOENT). It is still recorded.
//   fb-memory    the video memory; made smem_len long at open, never shrunk.
//                mmap works on it natively.
//   fb-requests  one line a request, appended: "open /dev/graphics/fb0",
//                "FBIOGET_FSCREENINFO", "ZELQAFB_IOCTL_EN_LAYER 1", ...
// Without fb-config the stand-in does nothing: every call goes on to the
// system.
//
// Opening /dev/graphics/fb0 gives a descriptor of fb-memory, opening
// /dev/tty0 one of /dev/null; the stand-in knows them by number until they
// are closed, and answers ioctl on them itself. Everything else passes
// through to the next definition (the C library, or a sanitizer's wrapper).
//
// The program under test may be built with 64-bit file offsets (the agent
// is), and so is the stand-in: its video memory may pass 2 GiB on a 32-bit
// system too. Under 64-bit offsets the C library's headers give open and
// openat the symbols open64 and openat64; the stand-in must catch calls
// through either name, so it names the symbol of each definition itself.
//
// Threads: any thread of the host program may call these functions. The
// table of known descriptors is lock-free, since close also runs in places
// where a lock could be held by a thread that no longer exists (a forked
// child); the configuration and the driver's variable screen information are
// under one lock.
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/fb.h>
#include <mutex>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char* kFbPath = "/dev/graphics/fb0";
constexpr const char* kTtyPath = "/dev/tty0";

constexpr unsigned long kKdSetMode = 0x4B3A;
constexpr unsigned long kGetFix = 0x4602;
constexpr unsigned long kGetVar = 0x4600;
constexpr unsigned long kPutVar = 0x4601;
constexpr unsigned long kEnLayer = 0x40014309;
constexpr unsigned long kSetLayerInputFormat = 0x40014301;

using OpenFn = int (*)(const char*, int, ...);
using OpenAtFn = int (*)(int, const char*, int, ...);
using CloseFn = int (*)(int);
using IoctlFn = int (*)(int, unsigned long, ...);

template <typename Fn>
Fn next_definition(const char* name) {
    void* sym = dlsym(RTLD_NEXT, name);
    Fn fn;
    static_assert(sizeof(fn) == sizeof(sym));
    memcpy(&fn, &sym, sizeof(fn));
    return fn;
}

OpenFn real_open() {
    static OpenFn fn = next_definition<OpenFn>("open");
    return fn;
}
OpenFn real_open64() {
    static OpenFn fn = next_definition<OpenFn>("open64");
    return fn;
}
OpenAtFn real_openat() {
    static OpenAtFn fn = next_definition<OpenAtFn>("openat");
    return fn;
}
OpenAtFn real_openat64() {
    static OpenAtFn fn = next_definition<OpenAtFn>("openat64");
    return fn;
}
CloseFn real_close() {
    static CloseFn fn = next_definition<CloseFn>("close");
    return fn;
}
IoctlFn real_ioctl() {
    static IoctlFn fn = next_definition<IoctlFn>("ioctl");
    return fn;
}

// ---- Files of the stand-in ---------------------------------------------------

bool stub_path(const char* name, char* out, size_t size) {
    const char* dir = getenv("OVTA_FBSTUB_DIR");
    if (dir == nullptr || dir[0] == '\0') dir = "/test-record";
    int n = snprintf(out, size, "%s/%s", dir, name);
    return n > 0 && static_cast<size_t>(n) < size;
}

// Appends one line to fb-requests, in one write so lines never interleave.
void record(const char* text) {
    char path[512];
    char line[512];
    int n = snprintf(line, sizeof(line), "%s\n", text);
    if (n <= 0 || !stub_path("fb-requests", path, sizeof(path))) return;
    int fd = real_open()(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return;
    size_t len = static_cast<size_t>(n) < sizeof(line) ? static_cast<size_t>(n) : sizeof(line) - 1;
    ssize_t w = write(fd, line, len);
    (void)w;
    real_close()(fd);
}

// ---- Configuration and the driver's state ------------------------------------

constexpr size_t kMaxFails = 16;

struct Config {
    uint32_t xres = 0, yres = 0, yoffset = 0, smem_len = 0, line_length = 0, bits_per_pixel = 32;
    char fails[kMaxFails][128] = {};
    size_t fail_count = 0;
};

std::mutex g_lock;
Config g_config;            // guarded by g_lock
fb_var_screeninfo g_var{};  // guarded by g_lock: the driver's current mode

// Reads fb-config into g_config; false when there is none. Caller holds g_lock.
bool load_config() {
    char path[512];
    if (!stub_path("fb-config", path, sizeof(path))) return false;
    int fd = real_open()(path, O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) return false;
    char text[8192];
    size_t len = 0;
    for (;;) {
        ssize_t n = read(fd, text + len, sizeof(text) - 1 - len);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        len += static_cast<size_t>(n);
        if (len == sizeof(text) - 1) break;
    }
    real_close()(fd);
    text[len] = '\0';

    Config c;
    char* save = nullptr;
    for (char* line = strtok_r(text, "\n", &save); line != nullptr; line = strtok_r(nullptr, "\n", &save)) {
        char* eq = strchr(line, '=');
        if (eq == nullptr) continue;
        *eq = '\0';
        const char* key = line;
        const char* value = eq + 1;
        uint32_t number = static_cast<uint32_t>(strtoul(value, nullptr, 0));
        if (strcmp(key, "xres") == 0) c.xres = number;
        else if (strcmp(key, "yres") == 0) c.yres = number;
        else if (strcmp(key, "yoffset") == 0) c.yoffset = number;
        else if (strcmp(key, "smem_len") == 0) c.smem_len = number;
        else if (strcmp(key, "line_length") == 0) c.line_length = number;
        else if (strcmp(key, "bits_per_pixel") == 0) c.bits_per_pixel = number;
        else if (strcmp(key, "fail") == 0 && c.fail_count < kMaxFails) {
            snprintf(c.fails[c.fail_count++], sizeof(c.fails[0]), "%s", value);
        }
    }
    if (c.line_length == 0) c.line_length = c.xres * (c.bits_per_pixel / 8);
    g_config = c;
    return true;
}

// Whether the request recorded as `line` is to fail. Caller holds g_lock.
bool should_fail(const char* line) {
    for (size_t i = 0; i < g_config.fail_count; ++i) {
        const char* f = g_config.fails[i];
        size_t n = strlen(f);
        if (strncmp(line, f, n) == 0 && (line[n] == '\0' || line[n] == ' ')) return true;
    }
    return false;
}

// ---- Known descriptors ---------------------------------------------------------

enum Kind : int { kNone = 0, kFb = 1, kTty = 2 };

struct Slot {
    std::atomic<int> fd{-1};
    std::atomic<int> kind{kNone};
    std::atomic<pid_t> owner{0};  // a forked child's copy of the table is not its own
};
Slot g_slots[16];

void remember(int fd, Kind kind) {
    for (Slot& s : g_slots) {
        int expected = -1;
        if (s.fd.compare_exchange_strong(expected, fd)) {
            s.kind = kind;
            s.owner = getpid();
            return;
        }
    }
}

Kind kind_of(int fd) {
    if (fd < 0) return kNone;
    for (Slot& s : g_slots) {
        if (s.fd.load() == fd && s.owner.load() == getpid()) return static_cast<Kind>(s.kind.load());
    }
    return kNone;
}

Kind forget(int fd) {
    if (fd < 0) return kNone;
    for (Slot& s : g_slots) {
        if (s.fd.load() != fd || s.owner.load() != getpid()) continue;
        Kind kind = static_cast<Kind>(s.kind.load());
        int expected = fd;
        if (s.fd.compare_exchange_strong(expected, -1)) return kind;
    }
    return kNone;
}

// ---- The two devices ---------------------------------------------------------

// Opens one of the two device paths, or returns -2 for any other path (and
// when the stand-in has no configuration).
int open_device(const char* path, int flags) {
    if (path == nullptr) return -2;
    const bool fb = strcmp(path, kFbPath) == 0;
    if (!fb && strcmp(path, kTtyPath) != 0) return -2;
    std::lock_guard<std::mutex> hold(g_lock);
    if (!load_config()) return -2;
    char line[128];
    snprintf(line, sizeof(line), "open %s", path);
    record(line);
    if (should_fail(line)) {
        errno = ENOENT;
        return -1;
    }
    const int cloexec = flags & O_CLOEXEC;
    int fd;
    if (fb) {
        char mem[512];
        if (!stub_path("fb-memory", mem, sizeof(mem))) {
            errno = ENAMETOOLONG;
            return -1;
        }
        fd = real_open64()(mem, O_RDWR | O_CREAT | cloexec, 0644);
        struct stat st {};
        if (fd >= 0 && fstat(fd, &st) == 0 && st.st_size < static_cast<off_t>(g_config.smem_len)) {
            if (ftruncate(fd, g_config.smem_len) != 0) {
                real_close()(fd);
                return -1;
            }
        }
        g_var = fb_var_screeninfo{};
        g_var.xres = g_var.xres_virtual = g_config.xres;
        g_var.yres = g_var.yres_virtual = g_config.yres;
        g_var.yoffset = g_config.yoffset;
        g_var.bits_per_pixel = g_config.bits_per_pixel;
    } else {
        fd = real_open()("/dev/null", O_RDWR | cloexec, 0);
    }
    if (fd >= 0) remember(fd, fb ? kFb : kTty);
    return fd;
}

int fail_with(int err) {
    errno = err;
    return -1;
}

int fb_ioctl(unsigned long request, unsigned long arg) {
    std::lock_guard<std::mutex> hold(g_lock);
    char line[256];
    switch (request) {
        case kGetFix: snprintf(line, sizeof(line), "FBIOGET_FSCREENINFO"); break;
        case kGetVar: snprintf(line, sizeof(line), "FBIOGET_VSCREENINFO"); break;
        case kPutVar: {
            const auto* v = reinterpret_cast<const fb_var_screeninfo*>(arg);
            snprintf(line, sizeof(line),
                     "FBIOPUT_VSCREENINFO xres=%u yres=%u xres_virtual=%u yres_virtual=%u xoffset=%u yoffset=%u "
                     "bits_per_pixel=%u",
                     v->xres, v->yres, v->xres_virtual, v->yres_virtual, v->xoffset, v->yoffset, v->bits_per_pixel);
            break;
        }
        case kEnLayer: snprintf(line, sizeof(line), "ZELQAFB_IOCTL_EN_LAYER %lu", arg); break;
        case kSetLayerInputFormat: snprintf(line, sizeof(line), "ZELQAFB_IOCTL_SET_LAYER_INPUT_FORMAT %lu", arg); break;
        default:
            snprintf(line, sizeof(line), "ioctl 0x%lx on %s", request, kFbPath);
            record(line);
            return fail_with(ENOTTY);
    }
    record(line);
    if (should_fail(line)) return fail_with(EIO);
    switch (request) {
        case kGetFix: {
            fb_fix_screeninfo fix{};
            snprintf(fix.id, sizeof(fix.id), "fbstub");
            fix.smem_len = g_config.smem_len;
            fix.type = FB_TYPE_PACKED_PIXELS;
            fix.visual = FB_VISUAL_TRUECOLOR;
            fix.line_length = g_config.line_length;
            memcpy(reinterpret_cast<void*>(arg), &fix, sizeof(fix));
            break;
        }
        case kGetVar: memcpy(reinterpret_cast<void*>(arg), &g_var, sizeof(g_var)); break;
        case kPutVar: memcpy(&g_var, reinterpret_cast<const void*>(arg), sizeof(g_var)); break;
        default: break;
    }
    return 0;
}

int tty_ioctl(unsigned long request, unsigned long arg) {
    std::lock_guard<std::mutex> hold(g_lock);
    char line[128];
    if (request != kKdSetMode) {
        snprintf(line, sizeof(line), "ioctl 0x%lx on %s", request, kTtyPath);
        record(line);
        return fail_with(ENOTTY);
    }
    snprintf(line, sizeof(line), "KDSETMODE %lu", arg);
    record(line);
    return should_fail(line) ? fail_with(EIO) : 0;
}

unsigned int open_mode(int flags, va_list args) {
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(args, unsigned int) : 0u;
}

}  // namespace

extern "C" {

// The definitions of the symbols open and openat, whatever the headers call
// them.
__attribute__((visibility("default"))) int fbstub_open(const char* path, int flags, ...) __asm__("open");
__attribute__((visibility("default"))) int fbstub_openat(int dirfd, const char* path, int flags, ...)
    __asm__("openat");

// Lets a test make sure that it runs under the stand-in.
__attribute__((visibility("default"))) int ovta_fbstub_present() { return 1; }

int fbstub_open(const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    unsigned int mode = open_mode(flags, args);
    va_end(args);
    int fd = open_device(path, flags);
    return fd != -2 ? fd : real_open()(path, flags, mode);
}

__attribute__((visibility("default"))) int open64(const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    unsigned int mode = open_mode(flags, args);
    va_end(args);
    int fd = open_device(path, flags);
    return fd != -2 ? fd : real_open64()(path, flags, mode);
}

__attribute__((visibility("default"))) int __open_2(const char* path, int flags) {
    int fd = open_device(path, flags);
    return fd != -2 ? fd : real_open()(path, flags, 0u);
}

__attribute__((visibility("default"))) int __open64_2(const char* path, int flags) {
    int fd = open_device(path, flags);
    return fd != -2 ? fd : real_open64()(path, flags, 0u);
}

int fbstub_openat(int dirfd, const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    unsigned int mode = open_mode(flags, args);
    va_end(args);
    int fd = path[0] == '/' ? open_device(path, flags) : -2;
    return fd != -2 ? fd : real_openat()(dirfd, path, flags, mode);
}

__attribute__((visibility("default"))) int openat64(int dirfd, const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    unsigned int mode = open_mode(flags, args);
    va_end(args);
    int fd = path[0] == '/' ? open_device(path, flags) : -2;
    return fd != -2 ? fd : real_openat64()(dirfd, path, flags, mode);
}

__attribute__((visibility("default"))) int close(int fd) {
    Kind kind = forget(fd);
    if (kind != kNone) {
        char line[64];
        snprintf(line, sizeof(line), "close %s", kind == kFb ? kFbPath : kTtyPath);
        record(line);
    }
    return real_close()(fd);
}

__attribute__((visibility("default"))) int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list args;
    va_start(args, request);
    unsigned long arg = va_arg(args, unsigned long);
    va_end(args);
    switch (kind_of(fd)) {
        case kFb: return fb_ioctl(request, arg);
        case kTty: return tty_ioctl(request, arg);
        default: return real_ioctl()(fd, request, arg);
    }
}

}  // extern "C"
