/*
 * Host stand-in for the device's Android log header. The library includes <android/log.h> as it
 * would on a device; on a host this declaration is served by the host stand-in kelr_host_liblog.
 */
#ifndef KELR_PLATFORM_ANDROID_LOG_H
#define KELR_PLATFORM_ANDROID_LOG_H

#ifdef __cplusplus
extern "C" {
#endif

typedef enum android_LogPriority {
    ANDROID_LOG_UNKNOWN = 0,
    ANDROID_LOG_DEFAULT = 1,
    ANDROID_LOG_VERBOSE = 2,
    ANDROID_LOG_DEBUG = 3,
    ANDROID_LOG_INFO = 4,
    ANDROID_LOG_WARN = 5,
    ANDROID_LOG_ERROR = 6,
    ANDROID_LOG_FATAL = 7,
    ANDROID_LOG_SILENT = 8,
} android_LogPriority;

/* Writes one line to the log. Returns the number of bytes written, or a negative errno. The host
 * stand-in writes the formatted message when it prints to standard error or a LogCapture lives,
 * and nothing (returning 0) otherwise. */
int __android_log_print(int prio, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif

#endif
