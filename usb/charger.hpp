// The platform library and the charger: after the handshake's success the
// agent switches the USB charger off through amt_usb_charger_enable of the
// platform's misc library, loaded for that one call.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t kLibPathSize = 512;
constexpr const char* kDefaultPlatform = "tq7100";
constexpr const char* kAltPlatform = "tq7101";
constexpr const char* kBoardPlatformProperty = "ro.board.platform";
constexpr const char* kChargerFunction = "amt_usb_charger_enable";

// Builds the two library paths from ro.board.platform. Runs on the main
// thread at start, in both modes, before any other thread exists.
void amt_lib_path_init();

// Calls amt_usb_charger_enable(type) of the misc library. Returns its result,
// -101 for a negative type, -118 when the library or the function is missing.
// Runs on the receive thread of the PC row, once per handshake success.
int32_t amt_usb_charge_ctrl(int32_t type);
