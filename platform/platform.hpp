// The platform seam: the Android log and the Android system properties.
// On Android these are liblog and libcutils; on a Linux host the log goes to
// standard error in logcat's brief form and each property is a file.
// Nothing else in the program knows which of the two it runs on.
#pragma once

#include <cstddef>

namespace platform {

// Android log priorities, as liblog numbers them.
constexpr int kLogDebug = 3;
constexpr int kLogError = 6;

// Largest property value, terminator included (PROP_VALUE_MAX on Android).
constexpr size_t kPropValueMax = 92;

// Writes one log record. A record may hold several lines. A null tag stands
// for the log's default tag, the program's name.
void log_write(int priority, const char* tag, const char* text);

// Same, but safe to call from a signal handler on a faulting thread: no lock,
// no allocation, no stdio.
void log_write_async_safe(int priority, const char* tag, const char* text);

// Copies the property's value into value (kPropValueMax bytes), or
// default_value when it has none. Returns the length of what was copied.
int property_get(const char* key, char* value, const char* default_value);

// Sets the property. Returns 0 on success, negative on failure.
int property_set(const char* key, const char* value);

// Same, but safe to call from a signal handler on a faulting thread: no lock,
// no allocation, no stdio. Used to leave a verdict when the process crashes.
int property_set_async_safe(const char* key, const char* value);

}  // namespace platform
