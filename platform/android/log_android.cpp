// Android log: every record goes to liblog. The text is an argument, never
// the format, so a '%' in it reaches the log as it is.
#include "platform/platform.hpp"

#include <android/log.h>

namespace platform {

static_assert(kLogDebug == ANDROID_LOG_DEBUG && kLogError == ANDROID_LOG_ERROR);

void log_write(int priority, const char* tag, const char* text) {
    __android_log_print(priority, tag, "%s", text);
}

// Nothing is formatted on this road: liblog hands the record to logd over a
// socket with writev.
void log_write_async_safe(int priority, const char* tag, const char* text) {
    __android_log_write(priority, tag, text);
}

}  // namespace platform
