// The test phone's platform library: stands in for
// /system/lib64/hw/amt.<platform>.misc.so. amt_usb_charger_enable records each
// call as a line "amt_usb_charger_enable(<type>)" in
// /test-record/charger-calls and then does what /system/etc/test-charger
// says: return the number written there (0 when the file is missing), or,
// for "fault", touch memory that is not accessible, a real SIGSEGV inside the
// library as a broken vendor library would give.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

void record_call(int32_t type) {
    char line[64] = "amt_usb_charger_enable(";
    size_t len = strlen(line);
    char digits[16];
    size_t n = 0;
    bool negative = type < 0;
    int64_t v = negative ? -static_cast<int64_t>(type) : type;
    do {
        digits[n++] = static_cast<char>('0' + v % 10);
        v /= 10;
    } while (v != 0);
    if (negative) line[len++] = '-';
    while (n > 0) line[len++] = digits[--n];
    line[len++] = ')';
    line[len++] = '\n';
    int fd = open("/test-record/charger-calls", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return;
    ssize_t w = write(fd, line, len);
    (void)w;
    close(fd);
}

[[noreturn]] void fault() {
    void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    for (;;) *static_cast<volatile int*>(page) = 1;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int32_t amt_usb_charger_enable(int32_t type) {
    record_call(type);
    char text[32] = {};
    int fd = open("/system/etc/test-charger", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    ssize_t n = read(fd, text, sizeof(text) - 1);
    close(fd);
    if (n <= 0) return 0;
    if (strncmp(text, "fault", 5) == 0) fault();
    return static_cast<int32_t>(strtol(text, nullptr, 10));
}
