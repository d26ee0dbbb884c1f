// Platform library paths and the charger call. The paths are written once on
// the main thread before any other thread exists and only read afterwards.
// The library is opened for the one call and closed at once, so whatever it
// does to the charger has to outlast the dlclose.
#include "usb/charger.hpp"

#include <cstring>
#include <dlfcn.h>
#include <memory>

#include "platform/platform.hpp"
#include "process/pub_util.hpp"

namespace {

constexpr const char* kLibDir = "/system/lib64/hw";

char g_misc_lib_path[kLibPathSize];
char g_audio_lib_path[kLibPathSize];

struct LibraryCloser {
    void operator()(void* handle) const { dlclose(handle); }
};

// Appends text to a path buffer, never past its last byte.
void append(char (&path)[kLibPathSize], const char* text) {
    size_t used = strnlen(path, kLibPathSize - 1);
    size_t room = kLibPathSize - 1 - used;
    size_t n = strnlen(text, room);
    memcpy(path + used, text, n);
    path[used + n] = '\0';
}

const char* dl_error_text() {
    const char* text = dlerror();
    return text != nullptr ? text : "unknown error";
}

}  // namespace

void amt_lib_path_init() {
    memset(g_misc_lib_path, 0, sizeof(g_misc_lib_path));
    memset(g_audio_lib_path, 0, sizeof(g_audio_lib_path));
    append(g_misc_lib_path, kLibDir);
    append(g_misc_lib_path, "/amt.");
    append(g_audio_lib_path, kLibDir);
    append(g_audio_lib_path, "/audio.primary.");

    const char* platform_name = kDefaultPlatform;
    char value[platform::kPropValueMax] = {};
    if (platform::property_get(kBoardPlatformProperty, value, "") != 0) {
        log_dbg("property-%s value: %s", kBoardPlatformProperty, value);
        if (strstr(value, kAltPlatform) != nullptr) platform_name = kAltPlatform;
    }
    append(g_misc_lib_path, platform_name);
    append(g_misc_lib_path, ".misc.so");
    append(g_audio_lib_path, platform_name);
    append(g_audio_lib_path, ".amt.so");
    log_dbg("audio lib path-name: %s", g_audio_lib_path);
    log_dbg("misc lib path-name: %s", g_misc_lib_path);
}

int32_t amt_usb_charge_ctrl(int32_t type) {
    log_dbg("will call amt_usb_charger_enable , type:%d.", type);
    if (type < 0) {
        log_dbg("parameter type(%d) is not valid.", type);
        return kRetInvalidParam;
    }
    std::unique_ptr<void, LibraryCloser> library(dlopen(g_misc_lib_path, RTLD_LAZY));
    if (!library) {
        log_dbg("call dlopen fail: - %s", dl_error_text());
        return kRetResource;
    }
    using ChargerEnable = int32_t (*)(int32_t);
    dlerror();
    auto enable = reinterpret_cast<ChargerEnable>(dlsym(library.get(), kChargerFunction));
    if (enable == nullptr) {
        log_dbg("call dlopen fail: - %s", dl_error_text());
        return kRetResource;
    }
    log_dbg("will call amt_usb_charger_enable.");
    int32_t result = enable(type);
    log_dbg("stop call amt_usb_charger_enable. return value:%d.", result);
    library.reset();
    if (result == 0) log_dbg("amt_usb_charger_enable return OK.");
    return result;
}

