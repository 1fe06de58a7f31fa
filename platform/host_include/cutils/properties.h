/*
 * Host stand-in for libcutils' <cutils/properties.h>: property_get only.
 * The device build uses libcutils' own header.
 */
#ifndef HOST_CUTILS_PROPERTIES_H
#define HOST_CUTILS_PROPERTIES_H

#ifdef __cplusplus
extern "C" {
#endif

#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

/* Copies the value of key (at most PROPERTY_VALUE_MAX - 1 characters and a
 * NUL) into value and returns its length.  When key is unset, copies
 * default_value instead (empty when NULL) and returns that length. */
int property_get(const char *key, char *value, const char *default_value);

#ifdef __cplusplus
}
#endif

#endif /* HOST_CUTILS_PROPERTIES_H */
