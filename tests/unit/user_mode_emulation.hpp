// The cross-built unit tests run under qemu's user-mode emulation (the
// arm64 and armhf test presets set OVTA_USER_MODE_EMULATION). Where the
// emulator behaves unlike a kernel, a test is skipped there with the reason,
// and runs everywhere else.
#pragma once

#include <cstdlib>

inline bool under_user_mode_emulation() {
    const char* v = std::getenv("OVTA_USER_MODE_EMULATION");
    return v != nullptr && v[0] != '\0';
}
