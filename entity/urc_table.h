// The URC prefixes the main task subscribes to at start, with the handler
// that each matching modem URC line is given to.
#ifndef URC_TABLE_H
#define URC_TABLE_H

#include <stdint.h>

#include <array>

#include "dati/dati.h"

struct DefaultUrcEntry {
    const char *prefix;
    dm_urc_hdl_t handler;
    int32_t flag;  // non-zero: leading CR/LF of a line are skipped before matching
};

inline constexpr std::array<DefaultUrcEntry, 1> kDefaultUrcTable = {{
        {"+CGEV", default_urc_cgev, 1},
}};

#endif  // URC_TABLE_H
