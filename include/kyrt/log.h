/*
 * KYRT - support runtime for analysis tools.
 *
 * The structured log, the message registry, call stacks and fatal exits.
 *
 * The runtime keeps one process-wide XML log, by default "kylog.log" in the
 * working directory, created on the first record after __KyRtStartup(). A
 * record names a registered message (its type name, ordered argument names
 * and flags), its severity, its source and a time stamp, and carries either
 * the message's typed arguments or a formatted text. Records are written
 * whole under the log file's lock, so records of different threads never
 * interleave. Before start-up nothing is logged.
 *
 * Typed arguments are passed as (tag, value) pairs:
 *   KY_LOG_ARG_INT      then an int                 written with "%d"
 *   KY_LOG_ARG_UNSIGNED then a 64-bit value         truncated to 32 bits, "%lu"
 *   KY_LOG_ARG_POINTER  then a pointer              "%p"
 *   KY_LOG_ARG_STRING   then a NUL-terminated text  escaped
 * one pair per declared argument name, then one more tag that ends the list
 * (KY_LOG_ARG_END).
 */
#ifndef KYRT_LOG_H
#define KYRT_LOG_H

#include <stdarg.h>

#include "kyrt/export.h"

KYRT_EXTERN_C_BEGIN

/* Severities. */
#define KY_LOG_ERROR 0
#define KY_LOG_WARNING 1
#define KY_LOG_INFO 2

/* Argument type tags. */
#define KY_LOG_ARG_INT 0x4AFE0077u
#define KY_LOG_ARG_UNSIGNED 0xFA10CAB4u
#define KY_LOG_ARG_POINTER 0x020FB6DEu
#define KY_LOG_ARG_STRING 0x3EDE9134u
#define KY_LOG_ARG_END 0u

/* Built-in message ids and the failure id. */
#define KY_LOG_MSG_COMMENT 0
#define KY_LOG_MSG_INTERNAL 1
#define KY_LOG_MSG_INVALID (-1)

/* Message flags. */
#define KY_LOG_MSG_FLAG_TEXT 1u       /* the record carries a formatted text */
#define KY_LOG_MSG_FLAG_COMMENT 2u    /* written only as a plain comment */
#define KY_LOG_MSG_FLAG_NO_DISPLAY 4u /* the record gets display='false' */

/* Fixed table sizes. */
#define KY_LOG_MAX_SOURCES 16
#define KY_LOG_MAX_MESSAGES 128

/* The default log file and the runtime's own source name. */
#define KY_LOG_DEFAULT_FILE "kylog.log"
#define KY_LOG_DEFAULT_SOURCE "kyrt"

/* A message definition. The registry keeps private copies of the name and
 * the argument names. */
typedef struct KyLogMessageDefinition {
  const char* name;                 /* type name, written as the "type" element */
  const char* const* argumentNames; /* null-terminated list, or null for none */
  uint32_t flags;                   /* KY_LOG_MSG_FLAG_* */
  uint32_t source;                  /* logger source index (0 = the runtime) */
} KyLogMessageDefinition;

/* The ids of the runtime's own messages, published by __KyRtStartup()
 * (0 until then, or if their registration failed). */
KYRT_API extern int32_t KYLOG_MSG_ABNORMAL_TERMINATE;
KYRT_API extern int32_t KYLOG_MSG_OUT_OF_MEMORY;
KYRT_API extern int32_t KYLOG_MSG_COLLECT_MEMORY;
KYRT_API extern int32_t KYLOG_MSG_MEMORY_IS_TIGHT;
KYRT_API extern int32_t KYLOG_MSG_FREEING_RESERVES;
KYRT_API extern int32_t KYLOG_MSG_BAD_OPTION;
KYRT_API extern int32_t KYLOG_MSG_BAD_ARGUMENT;
KYRT_API extern int32_t KYLOG_MSG_FAIL_CONVERT_FILENAME;
KYRT_API extern int32_t KYLOG_MSG_FAIL_OPEN_FILE;
KYRT_API extern int32_t KYLOG_MSG_FAIL_SEEK_FILE;
KYRT_API extern int32_t KYLOG_MSG_FAIL_READ_FILE;
KYRT_API extern int32_t KYLOG_MSG_FAIL_READ_FILE_VERBOSE;

/* An exit handler: called with the exit code on a fatal exit. It may clean
 * up and end the process itself; if it returns, the process ends with
 * status 255. */
typedef void (*KyExitHandlerProc)(int32_t code);

/* ------------------------------------------------------------------------ */
/* Logger                                                                    */
/* ------------------------------------------------------------------------ */

/* Creates the log file at path (appending when append is non-zero; in
 * overwrite mode the root element "log" is written with the attribute
 * source=source). Returns 1, or 0 when source or path is null, the runtime
 * is not started, or the file cannot be created (the logger then has no
 * file, even if it had one). A second successful call replaces the file
 * (the earlier one stays open and is no longer written). Thread-safe. */
KYRT_API int __KyCreateLogger(const char* source, const char* path, int append) KYRT_NOTHROW;

/* Repairs a log stream that has gone bad (for example after a fork) by
 * opening the file again for appending. Returns 1 when the stream is usable,
 * 0 when the runtime is not started, no log exists or reopening failed. */
KYRT_API int __KyReopenLogger(void) KYRT_NOTHROW;

/* 1 when a log file exists, else 0. */
KYRT_API int __KyIsLoggerInitialized(void) KYRT_NOTHROW;

/* Hands out a source index for a component of the tool named name (a
 * private copy is kept). Returns 1 to 15, or -1 when name is null, no log
 * exists, or all 16 sources are taken. Thread-safe. */
KYRT_API int32_t __KyGetLoggerHandle(const char* name) KYRT_NOTHROW;

/* Releases source index, whose stored name must be a prefix of name.
 * Returns 1, or 0 when no log exists, index is 0 or unknown, or the name
 * does not match. A released index is never handed out again; its messages
 * must not be logged afterwards. */
KYRT_API int __KyReleaseLoggerHandle(int32_t index, const char* name) KYRT_NOTHROW;

/* Writes one record of message messageId with the given severity
 * (KY_LOG_ERROR, KY_LOG_WARNING or KY_LOG_INFO); noDisplay non-zero marks
 * it display='false'. The variable part is, for a message with argument
 * names, the (tag, value) pairs and the ending tag; for a text or comment
 * message (and for an unknown id) a printf format and its arguments. The
 * first record creates "kylog.log" if no log exists; before start-up the
 * record is dropped. Thread-safe; never allocates with __KyMalloc. */
KYRT_API void __KyLogInternal(int32_t severity, int32_t messageId, int32_t noDisplay,
                              ...) KYRT_NOTHROW;

/* Writes the formatted text as a comment (message 0, severity INFO).
 * Returns 0. */
KYRT_API int __KyLogCommentInternal(const char* format, ...) KYRT_NOTHROW
    __attribute__((format(printf, 1, 2)));

/* Writes the closing tag of the root element. The file stays open and later
 * records still go to it. Does nothing without a log. */
KYRT_API void __KyCloseLogger(void) KYRT_NOTHROW;

/* Prints the formatted text and a newline to standard output. Returns 0. */
KYRT_API int __KyLogToConsole(const char* format, ...) KYRT_NOTHROW
    __attribute__((format(printf, 1, 2)));

/* ------------------------------------------------------------------------ */
/* Message registry                                                          */
/* ------------------------------------------------------------------------ */

/* Registers a message. Returns its id (2 to 127), or -1 when definition is
 * null or names an unknown source (logged as an INTERNAL error) or the table
 * is full (silently). Thread-safe; a message must not be logged before its
 * registration has returned. */
KYRT_API int32_t __KyRegisterLogMessage2(const KyLogMessageDefinition* definition) KYRT_NOTHROW;

/* The same under its older name. */
KYRT_API int32_t __KyRegisterLogMessage(const KyLogMessageDefinition* definition) KYRT_NOTHROW;

/* Registers the runtime's twelve messages and publishes their ids in the
 * KYLOG_MSG_* variables; on any failure publishes none and returns 0, else
 * returns 1. Called once by __KyRtStartup(). */
KYRT_API int __KyRegisterInternalKYRTLogMessages(void) KYRT_NOTHROW;

/* ------------------------------------------------------------------------ */
/* Call stacks and fatal exits                                               */
/* ------------------------------------------------------------------------ */

/* Writes the call stack frames[0 .. count) labelled name, one line per
 * frame (symbol, module and offset, or bare address), to the log as
 * comments once the runtime has started, to standard output before. count
 * is taken modulo 65,536. */
KYRT_API void __KyLogCallstack(const char* name, void* const* frames, uint32_t count) KYRT_NOTHROW;

/* Captures the calling thread's stack by its frame pointers and writes it
 * with __KyLogCallstack("trelltool", ...). */
KYRT_API void __KyLogCurrentCallstack(void) KYRT_NOTHROW;

/* Stores the exit handler (null allowed). */
KYRT_API void __KySetExitHandler(KyExitHandlerProc handler) KYRT_NOTHROW;

/* Calls the exit handler, if any, with code, then ends the process with
 * exit status 255. Never returns. */
KYRT_API void __KyExitHandler(int32_t code) KYRT_NOTHROW __attribute__((noreturn));

/* Logs ABNORMAL_TERMINATE (ERROR), then __KyExitHandler(code). */
KYRT_API void __KyFatalExit(int32_t code) KYRT_NOTHROW __attribute__((noreturn));

/* For an unrecoverable defect in the tool: logs the formatted text as an
 * INTERNAL error (or prints it before start-up), then the current call
 * stack, then __KyFatalExit(-1). Never returns. */
KYRT_API void __KyLogFatalToolDefect(const char* format, ...) KYRT_NOTHROW
    __attribute__((noreturn, format(printf, 1, 2)));

KYRT_EXTERN_C_END

#endif /* KYRT_LOG_H */
