/*
 * A stand-in of bionic's <sys/system_properties.h> for the host check of the
 * Android half of the platform layer, and for nothing else: libcutils'
 * <cutils/properties.h> includes it for the two size limits of a property,
 * and no Debian package ships it. The values are bionic's. On the phone the
 * real header is used.
 */
#pragma once

#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92
