// The AT command interface task (DATI, task 403): takes AT command lines and
// registration names from the AT clients, answers the commands of its table
// through their handlers, passes the forms it has no handler for to the modem
// through the AT interface, and refuses everything else.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <atomic>

#include "dati/dati.h"
#include "dati/dati_internal.h"
#include "entity/datamngr.h"
#include "entity/dm_log.h"
#include "entity/task_info.h"

static constexpr dm::log::Module kLogModule = dm::log::Module::Dati;

namespace {

constexpr const char *kVzwactParams[] = {"State", "APN"};
constexpr const char *kFunParams[] = {"Fun"};
constexpr const char *kEgtypeParams[] = {"Type"};
constexpr const char *kCgdcontParams[] = {"CID", "PDP Type", "APN"};
constexpr const char *kCgactParams[] = {"State", "CID"};
constexpr const char *kForgeUrcParams[] = {"Content"};

constexpr char kTokenSeparators[] = ",\r";

// Written on the DATI task's thread, read by the reply functions on the main
// task's thread as well (modem URCs passed on to the AT clients).
std::atomic<DatamngrEntity *> g_module_entity{nullptr};

// The tokeniser's remembered position in the line being parsed, and the end
// of that line as it was when parsing started: the position never passes it.
char *g_tok_pos = nullptr;
char *g_tok_end = nullptr;
char g_line_feed_token[] = "\n";

// The first row whose command starts the line, compared without case over
// the command's length.
const DatiAtcEntry *find_atc_row(const char *line) {
    for (const DatiAtcEntry &row : dati_atc_tbl) {
        if (strncasecmp(line, row.command, strlen(row.command)) == 0) return &row;
    }
    return nullptr;
}

// The reply a handler holds in cur_atcmd_event until it answers: made from
// the request, so that the answer reaches the AT client that asked.  Its own
// routine, so that the one reply the behaviour keeps for good (AT+VZWACT=)
// is told apart by where it was made.
evfw_event_t *hold_reply(evfw_event_t *request) {
    return evfw_event_alloc(request);
}

// "ERROR" for the client that sent `request`.
void refuse(evfw_event_t *request) {
    evfw_event_t *reply = evfw_event_alloc(request);
    if (reply == nullptr) {
        DATI_LOGE("datamngr_dati_task_hdl(): no event for the answer!!");
        return;
    }
    dati_dummy_resp(nullptr, reply, 0);
    evfw_event_free(reply);
}

}  // namespace

const DatiAtcEntry dati_atc_tbl[kDatiAtcRows] = {
        {{"AT+VZWACT"}, 2, {kVzwactParams}, {dati_vzwact_assign_hdl}, {dati_vzwact_query_hdl}},
        {{"AT+CFUN"}, 1, {kFunParams}, {dati_cfun_assign_hdl}, {nullptr}},
        {{"AT+EFUN"}, 1, {kFunParams}, {dati_efun_assign_hdl}, {nullptr}},
        {{"AT+EGTYPE"}, 1, {kEgtypeParams}, {dati_egtype_assign_hdl}, {nullptr}},
        {{"AT+CGDCONT"}, 3, {kCgdcontParams}, {dati_cgdcont_assign_hdl}, {nullptr}},
        {{"AT+CGACT"}, 2, {kCgactParams}, {dati_cgact_assign_hdl}, {dati_cgact_query_hdl}},
        {{"AT@URC"}, 1, {kForgeUrcParams}, {dati_forge_urc_assign_hdl}, {nullptr}},
};

namespace dati {

DatamngrEntity *module_entity() {
    return g_module_entity.load(std::memory_order_acquire);
}

void set_module_entity(DatamngrEntity *entity) {
    g_module_entity.store(entity, std::memory_order_release);
}

int send_from_dati(DatamngrEntity *entity, evfw_event_t *event, uint32_t to) {
    int ret = evfw_context_common_send(entity->dati_task.ctx, event, to);
    if (ret < 0) {
        DATI_LOGE("send of event %u to %s(%u) refused %d, event released!!", event_get_id(event),
                  context_get_name(to), to, ret);
        evfw_event_free(event);
    }
    return ret;
}

void release_held(evfw_event_t **held) {
    evfw_event_free(*held);
    *held = nullptr;
}

bool token_present(const char *token) {
    return token != nullptr && strcmp(token, "\n") != 0;
}

int32_t value_of(const char *text) {
    long value = text != nullptr ? strtol(text, nullptr, 10) : 0;
    if (value > INT32_MAX) return INT32_MAX;
    if (value < INT32_MIN) return INT32_MIN;
    return static_cast<int32_t>(value);
}

void copy_bounded(char *out, size_t out_len, const char *field, size_t field_len) {
    if (out_len == 0) return;
    size_t n = field != nullptr ? strnlen(field, field_len) : 0;
    if (n > out_len - 1) n = out_len - 1;
    if (n != 0) memcpy(out, field, n);
    out[n] = '\0';
}

void tokeniser_reset() {
    g_tok_pos = nullptr;
    g_tok_end = nullptr;
}

}  // namespace dati

void dati_state_reset() {
    dati::set_module_entity(nullptr);
    dati::tokeniser_reset();
    dati::replies_reset();
    dati::modem_at_reset();
}

char *atctok(char *text, char **save) {
    if (save == nullptr || (text == nullptr && *save == nullptr)) {
        DATI_LOGE("Incorrect AT command format with an unexpected part %s!!",
                  g_tok_pos != nullptr ? g_tok_pos : "");
        return nullptr;
    }
    if (text != nullptr) {
        g_tok_pos = text;
        g_tok_end = text + strlen(text);
    }
    char *token = strtok_r(text, kTokenSeparators, save);
    if (token == nullptr) {
        DATI_LOGE("Incorrect AT command format with an unexpected part %s!!",
                  g_tok_pos != nullptr ? g_tok_pos : "");
        return nullptr;
    }
    if (token[0] == '\n') return g_line_feed_token;
    // The last token of a line without a trailing separator would carry the
    // position past the line's NUL.
    size_t step = strlen(token) + 1;
    if (g_tok_pos != nullptr && g_tok_end != nullptr) {
        g_tok_pos =
                step <= static_cast<size_t>(g_tok_end - g_tok_pos) ? g_tok_pos + step : g_tok_end;
    }
    return token;
}

int datamngr_dati_task_hdl(evfw_context_t *context, evfw_event_t *event, void *entity_priv) {
    auto *entity = static_cast<DatamngrEntity *>(entity_priv);
    dati::set_module_entity(entity);
    if (event == nullptr) {
        DATI_LOGE("datamngr_dati_task_hdl(): no event!!");
        return 0;
    }
    uint32_t event_id = event_get_id(event);
    size_t len = 0;
    char *data = static_cast<char *>(event_get_data(event, 0, &len));

    if (event_id == EVENT_DATAMNGR_ATCMD_REQ) {
        DATI_LOGD("datamngr_entity_dati_task_hdl(): AT Cmd = \"%s\"",
                  data != nullptr && memchr(data, '\0', len) != nullptr ? data : "INVAL_AT_VAL");
        if (entity == nullptr) {
            DATI_LOGE("datamngr_dati_task_hdl(): dm_entity_priv = NULL!!");
        } else if (data == nullptr || memchr(data, '\0', len) == nullptr) {
            // The handlers parse the line in place as a C string: a line that
            // does not end inside its event is not looked at.
            DATI_LOGE("datamngr_dati_task_hdl(): AT Cmd of %zu bytes without its end is refused!!",
                      len);
            refuse(event);
        } else if (const DatiAtcEntry *row = find_atc_row(data); row == nullptr) {
            DATI_LOGW("The AT command %s is unsupported!!", data);
            refuse(event);
        } else {
            size_t name_len = strlen(row->command);
            char form = data[name_len];
            dati_atc_hdl_t hdl = form == '='   ? row->assign_hdl
                                 : form == '?' ? row->query_hdl
                                               : nullptr;
            if (form != '=' && form != '?') {
                // Any other character after the command: no answer at all.
            } else if (evfw_event_t *reply =
                               hdl != nullptr ? hold_reply(event) : evfw_event_alloc(event);
                       reply == nullptr) {
                DATI_LOGE("datamngr_dati_task_hdl(): no event for AT Cmd = \"%s\"!!", data);
            } else if (hdl != nullptr) {
                entity->cur_atcmd_event = reply;
                hdl(row, data + name_len + 1, &entity->cur_atcmd_event);
            } else {
                event_set_id(reply, EVENT_ATI_ATCMD_FWD);
                event_set_data(reply, 0, data, strlen(data) + 1);
                DATI_LOGI(
                        "datamngr_dati_task_hdl(): redirecting AT Cmd = \"%s\" to Modem Manager "
                        "through ATI",
                        data);
                dati::send_from_dati(entity, reply, TASK_ATI_ATC);
            }
        }
    } else if (event_id == EVENT_DATAMNGR_ATCMD_REGISTER) {
        size_t name_len = data != nullptr ? strnlen(data, len) : 0;
        if (name_len == 0) {
            DATI_LOGE(
                    "datamngr_dati_task_hdl(): the registration name for Data Manager is "
                    "invalid!!");
        } else if (name_len >= kNotificationLen) {
            DATI_LOGE(
                    "datamngr_dati_task_hdl(): the registration name of %zu characters is too "
                    "long!!",
                    name_len);
        } else {
            char name[kNotificationLen] = {};
            memcpy(name, data, name_len);
            evfw_event_t *notice = evfw_event_alloc(event);
            if (notice == nullptr) {
                DATI_LOGE("datamngr_dati_task_hdl(): no event for the registration of %s!!", name);
            } else {
                event_set_id(notice, EVENT_DATAMNGR_NOTIFICATION);
                event_set_data(notice, 0, name, sizeof(name));
                if (context == nullptr) {
                    evfw_event_free(notice);
                } else if (int ret = evfw_context_common_send(context, notice, TASK_DATAMNGR);
                           ret < 0) {
                    DATI_LOGE("datamngr_dati_task_hdl(): registration of %s refused %d!!", name,
                              ret);
                    evfw_event_free(notice);
                }
            }
        }
    } else {
        DATI_LOGW("An unknown event %d is ignored!!", event_id);
    }
    evfw_event_free(event);
    return 0;
}
