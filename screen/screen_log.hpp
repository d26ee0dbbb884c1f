// Log lines of the screen code. They bypass log_dbg and its "OVTA_AMT" tag:
// each is one record of priority 3 whose text is the message itself. The
// framebuffer lines carry no tag at all (the Android log shows its default
// tag, the program's name, and so does the host log); the lines about the
// picture carry "CHARGE_ONLY_MODE".
#pragma once

#include "platform/platform.hpp"

constexpr const char* kPictureLogTag = "CHARGE_ONLY_MODE";

inline void screen_log(const char* tag, const char* text) { platform::log_write(platform::kLogDebug, tag, text); }
