// The state of the two IMS PDNs (ids 4 and 5) that peers set and read with
// 4058 and 4060.  The dispatcher answers on the request's own event.
#ifndef PDN_STATE_H
#define PDN_STATE_H

#include <stddef.h>
#include <stdint.h>

#include "entity/dm_export.h"

struct DatamngrEntity;

// 4058: {leading word, pdn_id, state}.
struct PdnStateSetReq {
    uint32_t word0;
    uint32_t pdn_id;
    uint32_t state;
};
static_assert(sizeof(PdnStateSetReq) == 12);
static_assert(offsetof(PdnStateSetReq, pdn_id) == 4);
static_assert(offsetof(PdnStateSetReq, state) == 8);

// 4060: 136 bytes; the pdn id is the last word but one.
struct PdnStateGetReq {
    uint8_t unread[128];
    uint32_t pdn_id;
    uint32_t word_132;
};
static_assert(sizeof(PdnStateGetReq) == 136);
static_assert(offsetof(PdnStateGetReq, pdn_id) == 128);
static_assert(offsetof(PdnStateGetReq, word_132) == 132);

// 4061 (all 12 bytes) and 4059 (its first 8 bytes, zero).
struct PdnStateReply {
    uint32_t word0;
    uint32_t pdn_id;
    uint32_t state;
};
static_assert(sizeof(PdnStateReply) == 12);
static_assert(offsetof(PdnStateReply, pdn_id) == 4);
static_assert(offsetof(PdnStateReply, state) == 8);
constexpr uint32_t kPdnStateSetReplyLen = 8;
constexpr uint32_t kPdnStateGetReplyLen = sizeof(PdnStateReply);

constexpr uint32_t kPdnStateInitial = 65540;

// Test support: both states back to their initial value.
void pdn_state_reset();

extern "C" {

DM_EXPORT int32_t datamngr_set_pdn_state(DatamngrEntity *entity, const PdnStateSetReq *request,
                                         PdnStateReply *reply);
DM_EXPORT int32_t datamngr_get_pdn_state(DatamngrEntity *entity, const PdnStateGetReq *request,
                                         PdnStateReply *reply);

}  // extern "C"

#endif  // PDN_STATE_H
