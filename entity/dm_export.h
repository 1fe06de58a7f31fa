// Symbol visibility of the data manager, and the layout of the records its
// exported operations hand out.  The library is built with hidden
// visibility; only the entry points that the daemon, its other entities and
// the host call are marked DM_EXPORT.
#ifndef DM_EXPORT_H
#define DM_EXPORT_H

#include <stdint.h>

#define DM_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
#define DM_EXTERN_C extern "C"
#else
#define DM_EXTERN_C
#endif

// A pointer field of an exported record (a PDN row, a registry row, an AT
// command table row) in an 8-byte, 8-aligned slot, so that the record has
// the 64-bit phone's layout on every ABI.  On a 32-bit ABI the pointer fills
// the slot's low half (little endian) and the high half stays zero: the
// records live in zero-initialised static storage and only the pointer is
// ever written.  `<name>_slot` only gives the slot its size; it is not read.
#define DM_PTR_SLOT(type, name) \
    union {                     \
        type name;              \
        uint64_t name##_slot;   \
    }

#endif  // DM_EXPORT_H
