// The data manager's one logging facility.
//
// A line is " (<function, 24 columns>, <line, 4 columns>) [DMGR-ERR] <text>",
// written with __android_log_print at the priority that android_log_prio
// gives for the level bit and under the tag of the reporting module.  The
// levels are bits of dm_debug_lv: 1 error, 2 warning, 4 info, 8 debug.
//
// The AT command interface logs in its own form: no level word, and not gated
// by dm_debug_lv (DATI_LOG*).
//
// Each source file names its module before using the macros:
//     static constexpr dm::log::Module kLogModule = dm::log::Module::Pdn;
#ifndef DM_LOG_H
#define DM_LOG_H

#include <stdint.h>
#include <stdio.h>

#include <android/log.h>

#include "entity/dm_export.h"
#include "rvn_log.h"

// Levels enabled, by bit.  Default 15: all.
DM_EXTERN_C DM_EXPORT uint32_t dm_debug_lv;

namespace dm::log {

enum Level : uint32_t { kErr = 1, kWar = 2, kInf = 4, kDbg = 8 };

enum class Module { Entity, Pdn, Ims, Dati, Count };

// The tag for a module's lines.  While the module's tag index is unset, entry
// 0 in the daemon's process and entry 1 elsewhere.
const char *tag(Module module);

// Sets every module's tag index: 2 in the daemon's process (getpid() ==
// rvn_pid), 10 elsewhere.  Called when the entity starts.
void bind_tags();

// Returns the modules' tag indexes to unset (test support).
void unbind_tags();

}  // namespace dm::log

#define DM_LOG_AT_(lv, fn, hdr, fmt, ...)                                         \
    do {                                                                          \
        if (__android_log_print(android_log_prio[(lv)], dm::log::tag(kLogModule), \
                                " (%24.24s, %4d) " hdr fmt, (fn),                 \
                                __LINE__ __VA_OPT__(, ) __VA_ARGS__) >= 0) {      \
            fflush(stdout);                                                       \
        }                                                                         \
    } while (0)

// A line of a level that dm_debug_lv enables.
#define DM_LOG_(lv, fn, word, fmt, ...)                                        \
    do {                                                                       \
        if ((dm_debug_lv & (lv)) != 0) {                                       \
            DM_LOG_AT_(lv, fn, "[" word "] ", fmt __VA_OPT__(, ) __VA_ARGS__); \
        }                                                                      \
    } while (0)

#define DM_LOGE(fmt, ...) \
    DM_LOG_(dm::log::kErr, __func__, "DMGR-ERR", fmt __VA_OPT__(, ) __VA_ARGS__)
#define DM_LOGW(fmt, ...) \
    DM_LOG_(dm::log::kWar, __func__, "DMGR-WAR", fmt __VA_OPT__(, ) __VA_ARGS__)
#define DM_LOGI(fmt, ...) \
    DM_LOG_(dm::log::kInf, __func__, "DMGR-INF", fmt __VA_OPT__(, ) __VA_ARGS__)
#define DM_LOGD(fmt, ...) \
    DM_LOG_(dm::log::kDbg, __func__, "DMGR-DBG", fmt __VA_OPT__(, ) __VA_ARGS__)

// For helpers that report on behalf of the operation that called them: the
// line carries `fn`, the operation's name, instead of the helper's.
#define DM_LOGE_AS(fn, fmt, ...) \
    DM_LOG_(dm::log::kErr, fn, "DMGR-ERR", fmt __VA_OPT__(, ) __VA_ARGS__)
#define DM_LOGW_AS(fn, fmt, ...) \
    DM_LOG_(dm::log::kWar, fn, "DMGR-WAR", fmt __VA_OPT__(, ) __VA_ARGS__)
#define DM_LOGI_AS(fn, fmt, ...) \
    DM_LOG_(dm::log::kInf, fn, "DMGR-INF", fmt __VA_OPT__(, ) __VA_ARGS__)
#define DM_LOGD_AS(fn, fmt, ...) \
    DM_LOG_(dm::log::kDbg, fn, "DMGR-DBG", fmt __VA_OPT__(, ) __VA_ARGS__)

// The AT command interface's form: no level word, always written.
#define DATI_LOGE(fmt, ...) DM_LOG_AT_(dm::log::kErr, __func__, "", fmt __VA_OPT__(, ) __VA_ARGS__)
#define DATI_LOGW(fmt, ...) DM_LOG_AT_(dm::log::kWar, __func__, "", fmt __VA_OPT__(, ) __VA_ARGS__)
#define DATI_LOGI(fmt, ...) DM_LOG_AT_(dm::log::kInf, __func__, "", fmt __VA_OPT__(, ) __VA_ARGS__)
#define DATI_LOGD(fmt, ...) DM_LOG_AT_(dm::log::kDbg, __func__, "", fmt __VA_OPT__(, ) __VA_ARGS__)

#endif  // DM_LOG_H
