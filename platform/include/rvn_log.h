/*
 * rvn_log.h - the daemon's logging tables, shared by all of its entities.
 *
 * android_log_prio maps a log level bit (1 error, 2 warning, 4 info, 8 debug)
 * to an Android log priority; android_log_tag holds the tags of the daemon's
 * modules.  Both are defined by the daemon (by the host runtime off-device).
 */
#ifndef RVN_LOG_H
#define RVN_LOG_H

#ifdef __cplusplus
extern "C" {
#endif

#define RVN_LOG_PRIO_COUNT 16 /* indexed by level bit: 1, 2, 4, 8 */
#define RVN_LOG_TAG_COUNT 16

extern const int android_log_prio[RVN_LOG_PRIO_COUNT];
extern const char *const android_log_tag[RVN_LOG_TAG_COUNT];

#ifdef __cplusplus
}
#endif

#endif /* RVN_LOG_H */
