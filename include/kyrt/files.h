/*
 * KYRT - support runtime for analysis tools.
 *
 * Files, paths, lock files and processes.
 *
 * An instrumented program may have closed its standard streams, so streams
 * that the runtime opens never get descriptors 0 to 2 (__KyFopen). Strings
 * returned newly allocated come from __KyMalloc (category 0) and are
 * released by the caller with __KyFree. The functions hold no state and are
 * thread-safe unless noted.
 */
#ifndef KYRT_FILES_H
#define KYRT_FILES_H

#include <stdarg.h>
#include <stdio.h>
#include <wchar.h>

#include "kyrt/export.h"

KYRT_EXTERN_C_BEGIN

/* Size of the record of a lock file that the runtime reads and writes. */
#define KY_LOCK_FILE_RECORD_SIZE 8

/* ------------------------------------------------------------------------ */
/* Strings and paths                                                         */
/* ------------------------------------------------------------------------ */

/* A copy of string (null for null). */
KYRT_API char* __KyStrdup(const char* string) KYRT_NOTHROW;

/* In place: every run of "/" becomes one "/". Nothing else changes. Null is
 * ignored. */
KYRT_API void __KySanitizePath(char* path) KYRT_NOTHROW;

/* Cuts trailing white space in place and returns a pointer to the first
 * character that is not white space (null for null). */
KYRT_API char* __KyStripWhiteSpaces(char* string) KYRT_NOTHROW;

/* A copy of the part of path after its last "/", where a "/" in the first
 * position does not count ("/abc" gives "/abc", "abc/" gives ""). Null for
 * an empty or null path. The SC variant measures the length in 32 bits. */
KYRT_API char* __KyGetBaseName(const char* path) KYRT_NOTHROW;
KYRT_API char* __KyGetSCBaseName(const char* path) KYRT_NOTHROW;

/* strncpy, then destination[n - 1] = NUL when n is not 0. Returns
 * destination. */
KYRT_API char* __KyStrncpy(char* destination, const char* source, size_t n) KYRT_NOTHROW;
KYRT_API char* __KyStrSCncpy(char* destination, const char* source, size_t n) KYRT_NOTHROW;

/* In place, each byte through tolower; null is ignored. */
KYRT_API void __KyConvertUtf8ToLowerCase(char* string) KYRT_NOTHROW;

/* ------------------------------------------------------------------------ */
/* Formatted output (the C library's behaviour)                              */
/* ------------------------------------------------------------------------ */

KYRT_API int __KyFprintf(FILE* stream, const char* format, ...) KYRT_NOTHROW
    __attribute__((format(printf, 2, 3)));
KYRT_API int __KyVsnprintf(char* buffer, size_t size, const char* format,
                           va_list arguments) KYRT_NOTHROW;
KYRT_API int __KySnprintf(char* buffer, size_t size, const char* format, ...) KYRT_NOTHROW
    __attribute__((format(printf, 3, 4)));
KYRT_API int __KySCnprintf(char* buffer, size_t size, const char* format, ...) KYRT_NOTHROW
    __attribute__((format(printf, 3, 4)));

/* ------------------------------------------------------------------------ */
/* Streams                                                                   */
/* ------------------------------------------------------------------------ */

/* fopen(path, mode), making sure the stream's descriptor is above 2. error,
 * when not null, receives errno after every open attempt. Returns null on
 * failure. */
KYRT_API FILE* __KyFopen(const char* path, const char* mode, int* error) KYRT_NOTHROW;

/* fopen of the UTF-8 conversions of path and mode; null when a conversion
 * fails. No protection of descriptors 0 to 2. */
KYRT_API FILE* __KyWFopen(const wchar_t* path, const wchar_t* mode, int* error) KYRT_NOTHROW;

/* The C library's stream functions, unchanged. */
KYRT_API int __KyFclose(FILE* stream) KYRT_NOTHROW;
KYRT_API char* __KyFgets(char* buffer, int size, FILE* stream) KYRT_NOTHROW;
KYRT_API long __KyFtell(FILE* stream) KYRT_NOTHROW;
KYRT_API int __KyFflush(FILE* stream) KYRT_NOTHROW;
KYRT_API size_t __KyFread(void* buffer, size_t size, size_t count, FILE* stream) KYRT_NOTHROW;
KYRT_API size_t __KyFwrite(const void* buffer, size_t size, size_t count,
                           FILE* stream) KYRT_NOTHROW;
KYRT_API int __KyFseek(FILE* stream, long offset, int whence) KYRT_NOTHROW;

/* ------------------------------------------------------------------------ */
/* Lock files (record locks between processes)                               */
/* ------------------------------------------------------------------------ */

/* Opens or creates path for reading and writing (O_SYNC, mode 0777),
 * truncating it when truncate is non-zero. Returns the descriptor; a failure
 * ends the process (tool defect). */
KYRT_API int __KyCreateLockFile(const char* path, int truncate) KYRT_NOTHROW;

/* Takes a write lock over the whole file, waiting until granted. Returns
 * fcntl's result. */
KYRT_API int __KyLockFile(int fd) KYRT_NOTHROW;

/* Releases the lock (no wait). Returns fcntl's result. */
KYRT_API int __KyUnlockFile(int fd) KYRT_NOTHROW;

/* Reads the KY_LOCK_FILE_RECORD_SIZE-byte record at offset 0 into buffer;
 * returns the count read. A failed read ends the process (tool defect). */
KYRT_API int __KyReadLockFile(int fd, void* buffer) KYRT_NOTHROW;

/* Writes the record at offset 0; returns the count written. A failed write
 * ends the process (tool defect). */
KYRT_API long __KyWriteLockFile(int fd, const void* buffer) KYRT_NOTHROW;

/* close(fd). */
KYRT_API int __KyCloseLockFile(int fd) KYRT_NOTHROW;

/* ------------------------------------------------------------------------ */
/* Processes and system                                                      */
/* ------------------------------------------------------------------------ */

/* Starts argv[0] with arguments argv and an empty environment. Returns the
 * child's pid, or -1 when fork failed. A child whose exec fails logs it and
 * exits with status 255. */
KYRT_API int __KyCreateProcess(char* const argv[]) KYRT_NOTHROW;

/* The page size (4096 when the system does not say); cached. */
KYRT_API uint32_t __KyGetNativePageSize(void) KYRT_NOTHROW;

/* Adds increment (1 when increment is 0) to the process-wide stamp counter
 * and returns the new value: distinct, increasing values across threads.
 * Lock-free. */
KYRT_API uint64_t __KyUpdateTimestamp(int32_t increment) KYRT_NOTHROW;

KYRT_EXTERN_C_END

#ifdef __cplusplus
#include <string>

namespace kyrt {

enum KYFACCESSMODE {
  KYFACCESS_EXISTS = 0,
  KYFACCESS_READ = 1,
  KYFACCESS_WRITE = 2,
  KYFACCESS_READWRITE = 3,
};

/* access(path, mode): false for an empty path. */
KYRT_API bool CheckFileAccess(const std::string& path, KYFACCESSMODE mode) noexcept;

/* A copy of path (up to its first NUL) with runs of "/" collapsed. */
KYRT_API std::string SanitizePath(const std::string& path) noexcept;

/* Creates folder path (mode 0777) through the host's directory services;
 * false for an empty path or a refusal. */
KYRT_API bool CreateFolder(const std::string& path) noexcept;

/* Removes the empty folder path; false for an empty path or a failure. */
KYRT_API bool DeleteFolder(const std::string& path) noexcept;

/* true when path (one trailing "/" or "\\" ignored) is a folder. */
KYRT_API bool FolderExists(std::string path) noexcept;

/* The running executable's path, sanitised; empty when it cannot be read. */
KYRT_API std::string GetExecutableFilePath() noexcept;

/* The text before the last "/"; empty when there is none or it is the first
 * character. */
KYRT_API std::string GetFolderName(const std::string& path) noexcept;

/* The text after the last "/" (a leading "/" counts); the whole string when
 * there is none. */
KYRT_API std::string GetBaseName(const std::string& path) noexcept;

}  // namespace kyrt
#endif

#endif /* KYRT_FILES_H */
