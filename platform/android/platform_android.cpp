// Android: the log is liblog, the properties are libcutils.
#include "platform/platform.hpp"

#include <android/log.h>
#include <cutils/properties.h>

namespace platform {

void log_write(int priority, const char* tag, const char* text) {
    __android_log_print(priority, tag, "%s", text);
}

void log_write_async_safe(int priority, const char* tag, const char* text) {
    __android_log_write(priority, tag, text);
}

int property_get(const char* key, char* value, const char* default_value) {
    return ::property_get(key, value, default_value);
}

int property_set(const char* key, const char* value) {
    return ::property_set(key, value);
}

// bionic hands the value to the property service over a socket with plain
// system calls (socket, connect, send, poll), no lock and no allocation.
int property_set_async_safe(const char* key, const char* value) {
    return ::property_set(key, value);
}

}  // namespace platform
