// Symbol visibility of the data manager.  The library is built with hidden
// visibility; only the entry points that the daemon, its other entities and
// the host call are marked DM_EXPORT.
#ifndef DM_EXPORT_H
#define DM_EXPORT_H

#define DM_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
#define DM_EXTERN_C extern "C"
#else
#define DM_EXTERN_C
#endif

#endif  // DM_EXPORT_H
