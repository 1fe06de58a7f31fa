/*
 * Host stand-in for the NDK's <android/log.h>: the part the entity uses.
 * The device build uses liblog's own header.
 */
#ifndef HOST_ANDROID_LOG_H
#define HOST_ANDROID_LOG_H

#ifdef __cplusplus
extern "C" {
#endif

typedef enum android_LogPriority {
    ANDROID_LOG_UNKNOWN = 0,
    ANDROID_LOG_DEFAULT,
    ANDROID_LOG_VERBOSE,
    ANDROID_LOG_DEBUG,
    ANDROID_LOG_INFO,
    ANDROID_LOG_WARN,
    ANDROID_LOG_ERROR,
    ANDROID_LOG_FATAL,
    ANDROID_LOG_SILENT,
} android_LogPriority;

/* Returns the number of bytes written, or a negative errno. */
int __android_log_print(int prio, const char *tag, const char *fmt, ...)
        __attribute__((__format__(printf, 3, 4)));

#ifdef __cplusplus
}
#endif

#endif /* HOST_ANDROID_LOG_H */
