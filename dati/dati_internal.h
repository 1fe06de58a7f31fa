// What the files of the AT command front end share among themselves: the
// module's pointer to the entity state, the sending of events from the DATI
// task, and the resets of each file's state.
#ifndef DATI_INTERNAL_H
#define DATI_INTERNAL_H

#include <stddef.h>
#include <stdint.h>

#include "evfw.h"

struct DatamngrEntity;

namespace dati {

// The entity state as the DATI task last received it (null until the task's
// first event).  The reply functions read it, also from the main task's
// thread when a modem URC is passed on to the AT clients.
DatamngrEntity *module_entity();
void set_module_entity(DatamngrEntity *entity);

// Sends `event` from the DATI task's context to `to`.  The framework owns the
// event afterwards; on a refused send the event is freed here, so the caller
// never touches it again.  Returns the framework's result.
int send_from_dati(DatamngrEntity *entity, evfw_event_t *event, uint32_t to);

// Frees the held reply event of the command being handled and empties the
// slot.
void release_held(evfw_event_t **held);

// Whether an atctok result is a parameter value ("\n" stands for none).
bool token_present(const char *token);

// The base-10 value of an AT parameter or URC field, read as atoi would but
// held at the nearest end of the 32-bit range.
int32_t value_of(const char *text);

// Bounded copy of a text field that may arrive without its NUL: at most
// `field_len` bytes are read and `out` (of `out_len` bytes) is always
// NUL-terminated.
void copy_bounded(char *out, size_t out_len, const char *field, size_t field_len);

void tokeniser_reset();
void replies_reset();
void modem_at_reset();

}  // namespace dati

#endif  // DATI_INTERNAL_H
