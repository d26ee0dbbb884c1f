// Android system properties: libcutils over bionic's property service.
#include "platform/platform.hpp"

#include <cutils/properties.h>

namespace platform {

// Callers hand property_get a buffer of kPropValueMax bytes, and libcutils
// may fill PROPERTY_VALUE_MAX of them.
static_assert(kPropValueMax == PROPERTY_VALUE_MAX);

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
