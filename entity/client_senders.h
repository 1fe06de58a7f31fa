// Request senders for the daemon's other modules and for exercising the data
// manager: each builds fixed events and hands them to the framework from the
// caller's context, exactly as a peer would send them.
//
// Every event is fresh (evfw_event_alloc(NULL)), so it takes the route of the
// caller's context; its payload is zeroed apart from the contents named
// below.  Nothing is sent when the context is null.  Each routine returns 0.
//
// Threads: the caller's; no shared state is touched.
#ifndef CLIENT_SENDERS_H
#define CLIENT_SENDERS_H

#include <stdint.h>

#include "entity/dm_export.h"
#include "evfw.h"

// Announcement payload: the task name, NUL-terminated.
constexpr uint32_t kClientNotificationLen = 132;
// Value carried by the netlink listen request.
constexpr uint32_t kNetlinkListenType = 5566;

extern "C" {

// 4002 to the main task, the name copied in (at most 131 characters).
DM_EXPORT int32_t dm_send_req_notification(evfw_context_t *context, const char *name);
// Three 4003 setup requests to the main task: all zero; IMS parameters valid
// with the emergency word 1; IMS parameters valid only.
DM_EXPORT int32_t dm_send_req_setup_data_call(evfw_context_t *context);
// Three 4004 setup answers to the main task (see client_senders.cpp).
DM_EXPORT int32_t dm_send_resp_setup_data_call(evfw_context_t *context);
// 4032 radio power request, zero, to the main task.
DM_EXPORT int32_t dm_send_req_radio_power(evfw_context_t *context);
// 9318 handover request to the main task: second byte 1, rest zero.
DM_EXPORT int32_t dm_send_ho_notify(evfw_context_t *context);
// Six modem URC lines (3006) to the main task.
DM_EXPORT int32_t dm_send_urc(evfw_context_t *context);
// 4070 netlink listen request with the type 5566 to the third task (404).
DM_EXPORT int32_t dm_send_req_netlink_listen(evfw_context_t *context);

}  // extern "C"

#endif  // CLIENT_SENDERS_H
