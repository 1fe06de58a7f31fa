/*
 * Stand-in for bionic's <sys/system_properties.h>, which libcutils'
 * <cutils/properties.h> includes and Debian does not ship: the two limits
 * that header takes from it, with bionic's values.  Host builds only; on
 * the device bionic provides the real header.
 */
#ifndef DM_BIONIC_SYS_SYSTEM_PROPERTIES_H
#define DM_BIONIC_SYS_SYSTEM_PROPERTIES_H

#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92

#endif /* DM_BIONIC_SYS_SYSTEM_PROPERTIES_H */
