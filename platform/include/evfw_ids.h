/*
 * evfw_ids.h - the framework's registry of the event and task ids that the
 * data manager exchanges, with the symbolic names the framework reports for
 * them (event_get_name, context_get_name).
 *
 * Each list entry is X(NAME, value); the enums below and the framework's name
 * tables are generated from the same lists.
 */
#ifndef EVFW_IDS_H
#define EVFW_IDS_H

/* clang-format off */
#define EVFW_EVENT_LIST(X)                                          \
    /* AT interface (tasks 7 and 8) */                               \
    X(EVENT_ATI_ATCMD_FWD,                          15)              \
    X(EVENT_ATI_URC_FORGED,                         18)              \
    X(EVENT_ATI_URC,                                21)              \
    /* modem AT manager (tasks 302, 307) */                          \
    X(EVENT_ATMNGR_ATCMD_REQ,                       3002)            \
    X(EVENT_ATMNGR_C2K_ATCMD_REQ,                   3003)            \
    X(EVENT_ATMNGR_ATCMD_RESP,                      3004)            \
    X(EVENT_ATMNGR_URC,                             3006)            \
    X(EVENT_ATMNGR_NOTIFY,                          3008)            \
    /* data manager */                                               \
    X(EVENT_DATAMNGR_NOTIFICATION,                  4002)            \
    X(EVENT_DATAMNGR_SETUP_DATA_CALL_REQ,           4003)            \
    X(EVENT_DATAMNGR_SETUP_DATA_CALL_RESP,          4004)            \
    X(EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_REQ,      4005)            \
    X(EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_RESP,     4006)            \
    X(EVENT_DATAMNGR_SETUP_DEDICATE_DATA_CALL_REQ,  4007)            \
    X(EVENT_DATAMNGR_SETUP_DEDICATE_DATA_CALL_RESP, 4008)            \
    X(EVENT_DATAMNGR_MODIFY_DATA_CALL_REQ,          4009)            \
    X(EVENT_DATAMNGR_MODIFY_DATA_CALL_RESP,         4010)            \
    X(EVENT_DATAMNGR_DEACTIVATE_DEDICATE_DATA_CALL_REQ,  4011)       \
    X(EVENT_DATAMNGR_DEACTIVATE_DEDICATE_DATA_CALL_RESP, 4012)       \
    X(EVENT_DATAMNGR_ABORT_SETUP_DATA_CALL_REQ,     4013)            \
    X(EVENT_DATAMNGR_ABORT_SETUP_DATA_CALL_RESP,    4014)            \
    X(EVENT_DATAMNGR_PCSCF_DISCOVERY_PCO_REQ,       4015)            \
    X(EVENT_DATAMNGR_PCSCF_DISCOVERY_PCO_RESP,      4016)            \
    X(EVENT_DATAMNGR_LAST_DATA_CALL_FAIL_CAUSE_REQ, 4017)            \
    X(EVENT_DATAMNGR_LAST_DATA_CALL_FAIL_CAUSE_RESP, 4018)           \
    X(EVENT_DATAMNGR_DATA_CALL_LIST_REQ,            4019)            \
    X(EVENT_DATAMNGR_DATA_CALL_LIST_RESP,           4020)            \
    X(EVENT_DATAMNGR_DATA_CALL_LIST_CHANGED_URC,    4021)            \
    X(EVENT_DATAMNGR_DEDICATE_BEARER_ACTIVATED_URC, 4024)            \
    X(EVENT_DATAMNGR_DEDICATE_BEARER_MODIFIED_URC,  4025)            \
    X(EVENT_DATAMNGR_DEDICATE_BEARER_DEACTIVATED_URC, 4026)          \
    X(EVENT_DATAMNGR_IF_STATUS_REQ,                 4027)            \
    X(EVENT_DATAMNGR_IF_RAT_CELL_INFO_REQ,          4028)            \
    X(EVENT_DATAMNGR_DEFAULT_BEARER_MODIFIED_URC,   4029)            \
    X(EVENT_DATAMNGR_SET_INITIAL_ATTACH_APN_REQ,    4030)            \
    X(EVENT_DATAMNGR_SET_INITIAL_ATTACH_APN_RESP,   4031)            \
    X(EVENT_DATAMNGR_RADIO_POWER_REQ,               4032)            \
    X(EVENT_DATAMNGR_RADIO_POWER_DO_REQ,            4033)            \
    X(EVENT_DATAMNGR_RADIO_POWER_RESP,              4034)            \
    X(EVENT_DATAMNGR_RADIO_POWER_IND,               4035)            \
    X(EVENT_DATAMNGR_ALLOW_DATA_REQ,                4037)            \
    X(EVENT_DATAMNGR_ALLOW_DATA_RESP,               4038)            \
    X(EVENT_DATAMNGR_ALLOW_DATA_IND,                4039)            \
    X(EVENT_DATAMNGR_BEAR_REQ,                      4041)            \
    X(EVENT_DATAMNGR_BEAR_RESP,                     4042)            \
    X(EVENT_DATAMNGR_GET_CID_REQ,                   4043)            \
    X(EVENT_DATAMNGR_GET_CID_RESP,                  4044)            \
    X(EVENT_DATAMNGR_PASS_IMS_PDN_REQ,              4045)            \
    X(EVENT_DATAMNGR_PASS_IMS_PDN_RESP,             4046)            \
    X(EVENT_DATAMNGR_GET_IMS_PDN_REQ,               4047)            \
    X(EVENT_DATAMNGR_GET_IMS_PDN_RESP,              4048)            \
    X(EVENT_DATAMNGR_GET_IMS_PARA_REQ,              4049)            \
    X(EVENT_DATAMNGR_GET_IMS_PARA_RESP,             4050)            \
    X(EVENT_DATAMNGR_SETUP_DATA_CALL_RESP_IND,      4051)            \
    X(EVENT_DATAMNGR_SETUP_DATA_CALL_FAIL_IND,      4052)            \
    X(EVENT_DATAMNGR_HANDOVER_RESP,                 4053)            \
    X(EVENT_DATAMNGR_SET_PDN_STATE_REQ,             4058)            \
    X(EVENT_DATAMNGR_SET_PDN_STATE_RESP,            4059)            \
    X(EVENT_DATAMNGR_GET_PDN_STATE_REQ,             4060)            \
    X(EVENT_DATAMNGR_GET_PDN_STATE_RESP,            4061)            \
    X(EVENT_DATAMNGR_SETUP_DATA_CALL_RESP_NOTIFY,   4062)            \
    X(EVENT_DATAMNGR_SETUP_DATA_CALL_RESP_FAIL_NOTIFY, 4063)         \
    X(EVENT_DATAMNGR_SETUP_DATA_CALL_RESP_ACK,      4064)            \
    X(EVENT_DATAMNGR_ATCMD_REQ,                     4065)            \
    X(EVENT_DATAMNGR_ATCMD_RESP,                    4066)            \
    X(EVENT_DATAMNGR_ATCMD_REGISTER,                4067)            \
    X(EVENT_DATAMNGR_NETLINK_LISTEN_REQ,            4070)            \
    /* handover peer RB (tasks 902..905) */                          \
    X(EVENT_RB_SETUP_DATA_CALL_IND,                 9304)            \
    X(EVENT_RB_SETUP_DATA_CALL_REQ,                 9314)            \
    X(EVENT_RB_SETUP_DATA_CALL_CNF,                 9315)            \
    X(EVENT_RB_DEACTIVATE_DATA_CALL_REQ,            9316)            \
    X(EVENT_RB_DEACT_DATA_CALL_IND,                 9317)            \
    X(EVENT_RB_HANDOVER_REQ,                        9318)            \
    X(EVENT_RB_EPDG_DEACTIVATE_NOTIFY,              9322)

#define EVFW_TASK_LIST(X)                       \
    X(TASK_ATI_ATC,               7)            \
    X(TASK_ATI_URC,               8)            \
    X(TASK_RILDPROXY,             202)          \
    X(TASK_ATMNGR,                302)          \
    X(TASK_ATMNGR_C2K,            307)          \
    X(TASK_DATAMNGR,              402)          \
    X(TASK_DATAMNGR_DATI_HDL,     403)          \
    X(TASK_DATAMNGR_AUX,          404)          \
    X(TASK_RB_SIM0,               902)          \
    X(TASK_RB_SIM1,               903)          \
    X(TASK_RB_SIM2,               904)          \
    X(TASK_RB_SIM3,               905)
/* clang-format on */

#define EVFW_ID_ENUM_ENTRY(name, value) name = (value),

enum evfw_event_id { EVFW_EVENT_LIST(EVFW_ID_ENUM_ENTRY) };
enum evfw_task_id { EVFW_TASK_LIST(EVFW_ID_ENUM_ENTRY) };

#endif /* EVFW_IDS_H */
