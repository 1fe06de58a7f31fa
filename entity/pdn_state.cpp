#include "entity/pdn_state.h"

#include <array>

#include "entity/dm_log.h"

static constexpr dm::log::Module kLogModule = dm::log::Module::Entity;

namespace {

// Indexed by PDN id; only the IMS (4) and emergency IMS (5) ids are kept.
constexpr uint32_t kImsPdnId = 4;
constexpr uint32_t kEmergencyPdnId = 5;
std::array<uint32_t, 6> g_pdn_state = {0, 0, 0, 0, kPdnStateInitial, kPdnStateInitial};

bool is_kept(uint32_t pdn_id) {
    return pdn_id == kImsPdnId || pdn_id == kEmergencyPdnId;
}

}  // namespace

void pdn_state_reset() {
    g_pdn_state[kImsPdnId] = kPdnStateInitial;
    g_pdn_state[kEmergencyPdnId] = kPdnStateInitial;
}

int32_t datamngr_set_pdn_state(DatamngrEntity *entity, const PdnStateSetReq *request,
                               PdnStateReply *reply) {
    if (entity == nullptr || request == nullptr || reply == nullptr) {
        DM_LOGE("datamngr_set_pdn_state(): Invalid argument!!");
        return -1;
    }
    DM_LOGI("datamngr_set_pdn_state(): (PDN ID, State) = (%d, %d)!!", request->pdn_id,
            request->state);
    if (is_kept(request->pdn_id)) {
        g_pdn_state[request->pdn_id] = request->state;
    } else {
        DM_LOGE("datamngr_set_pdn_state(): Invalid request code!!");
    }
    return 0;
}

int32_t datamngr_get_pdn_state(DatamngrEntity *entity, const PdnStateGetReq *request,
                               PdnStateReply *reply) {
    if (entity == nullptr || request == nullptr || reply == nullptr) {
        DM_LOGE("datamngr_get_pdn_state(): Invalid argument!!");
        return -1;
    }
    DM_LOGI("datamngr_get_pdn_state(): PDN ID = %d!!", request->pdn_id);
    if (is_kept(request->pdn_id)) {
        reply->pdn_id = request->pdn_id;
        reply->state = g_pdn_state[request->pdn_id];
    } else {
        DM_LOGE("datamngr_get_pdn_state(): Invalid request code!!");
    }
    return 0;
}
