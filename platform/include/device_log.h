/*
 * The device's log library: where the daemon core, the framework, the file service and the
 * profiling agent write their lines. Plain C; any thread may call any operation at any time
 * after dlog_init, and a call before it still reaches the default sink.
 */
#ifndef ORLA_PLATFORM_DEVICE_LOG_H
#define ORLA_PLATFORM_DEVICE_LOG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Levels of CheckLogLevel. */
enum {
    DLOG_DEBUG = 0,
    DLOG_INFO = 1,
    DLOG_WARN = 2,
    DLOG_ERROR = 3,
};

/* Attributes of this process in the log. The library's record is wider than what the daemon
 * sets; what is not named here is zero. */
typedef struct {
    uint32_t processKind; /* 1: a system process of the device */
    uint32_t pid;         /* process id that the lines are filed under, 0 for none */
    uint32_t deviceId;
    uint32_t reserved[13];
} DlogAttr;

/* Attaches the process to the log. Called once, before any other thread exists. */
void dlog_init(void);
/* 0 on success. `attributes` is copied. */
int DlogSetAttr(DlogAttr attributes);

/* 1 when lines of that level (0..3) are written for that module, else 0. Cheap enough to be
 * asked before every line. */
int CheckLogLevel(int module, int level);

/* One line each. `format` and its arguments as printf's; a line feed at the end of the format
 * is part of the line's end, not of its text. Error and event lines are always written. */
void DlogErrorInner(int module, const char* format, ...) __attribute__((format(printf, 2, 3)));
void DlogWarnInner(int module, const char* format, ...) __attribute__((format(printf, 2, 3)));
void DlogInfoInner(int module, const char* format, ...) __attribute__((format(printf, 2, 3)));
void DlogDebugInner(int module, const char* format, ...) __attribute__((format(printf, 2, 3)));
void DlogEventInner(int module, const char* format, ...) __attribute__((format(printf, 2, 3)));

#ifdef __cplusplus
}
#endif
#endif
