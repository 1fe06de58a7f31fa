// The operator customisation table.  An operator build may supply a table of
// hooks that the data manager consults at fixed steps; this system ships
// none, so dm_get_operator_hooks() yields null and every step that consults a
// hook does nothing when the table or the entry is absent.
#ifndef OPERATOR_HOOKS_H
#define OPERATOR_HOOKS_H

#include <stdint.h>

#include "evfw.h"

struct SetupDataCallReq;
struct SetupDataCallResp;
struct DeactivateReq;

// Entries in table order; the unnamed ones are not consulted by the data
// manager.
struct OperatorHooks {
    void *reserved_1;
    void *reserved_2;
    void *reserved_3;
    // URC prefixes the main task subscribes to besides its own.
    int32_t (*urc_count)(void);
    int32_t (*urc_prefix)(int32_t index, char *prefix_out, int32_t *flag_out);
    // 1 rejects a setup request.
    int32_t (*setup_req_check)(SetupDataCallReq *req, evfw_event_t *event);
    int32_t (*setup_resp)(SetupDataCallResp *resp, evfw_event_t *event);
    int32_t (*deactivate)(DeactivateReq *req, evfw_event_t *event);
    int32_t (*nw_deactivate)(int32_t cid, uint32_t interface_id, int32_t zero);
    void *reserved_10;
    void *reserved_11;
    void *reserved_12;
    void *reserved_13;
    void *reserved_14;
    void *reserved_15;
    int32_t (*urc)(const char *text, uint32_t kind, uint32_t sim, evfw_event_t *event);
};

const OperatorHooks *dm_get_operator_hooks();

// Test support: installs a table (null removes it).
void dm_set_operator_hooks(const OperatorHooks *hooks);

#endif  // OPERATOR_HOOKS_H
