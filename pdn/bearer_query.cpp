// The bearer and cid queries, answered from the PDN table without the RIL,
// on the channel the query came in on.  A miss is answered, never dropped.
// Main task thread only; the table is only read.
#include <string.h>

#include "entity/dm_log.h"
#include "entity/dm_send.h"
#include "evfw_ids.h"
#include "pdn/pdn_info.h"

static constexpr dm::log::Module kLogModule = dm::log::Module::Pdn;

namespace {

constexpr int32_t kFound = 0;
constexpr int32_t kNotFound = -1;

}  // namespace

int32_t dm_bear_req(const WordPair *query, evfw_event_t *event) {
    // Any bearer of the cid, dedicated ones included.
    const PdnInfo *row = find_pdn_info_by_cid(static_cast<int32_t>(query->word0));
    DM_LOGI("%s query for cid %u\n", __func__, query->word0);
    if (row == nullptr) {
        DM_LOGE("%s cid %u not found\n", __func__, query->word0);
        WordPair miss = {static_cast<uint32_t>(kNotFound), 0};
        return dm_resp_to_external_channel(&miss, sizeof(miss), event, EVENT_DATAMNGR_BEAR_RESP);
    }
    BearResp answer;
    memset(&answer, 0, sizeof(answer));
    answer.result = kFound;
    memcpy(&answer.entry, &row->call, sizeof(answer.entry));
    DM_LOGI("%s primary cid %u\n", __func__, answer.entry.primary_cid);
    return dm_resp_to_external_channel(&answer, sizeof(answer), event, EVENT_DATAMNGR_BEAR_RESP);
}

int32_t dm_get_cid_req(const WordPair *query, evfw_event_t *event) {
    // Only the default bearer stands for an interface.
    const PdnInfo *row = find_pdn_info_by_interface(static_cast<int32_t>(query->word0));
    DM_LOGI("%s query for interface %u\n", __func__, query->word0);
    CidResp answer = {kNotFound, 0};
    if (row != nullptr) {
        answer.result = kFound;
        answer.cid = static_cast<uint32_t>(row->cid);
        DM_LOGI("%s cid %u\n", __func__, answer.cid);
    } else {
        DM_LOGE("%s interface %u not found\n", __func__, query->word0);
    }
    return dm_resp_to_external_channel(&answer, sizeof(answer), event, EVENT_DATAMNGR_GET_CID_RESP);
}
