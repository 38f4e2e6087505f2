/*
 * KYRT - support runtime for analysis tools.
 *
 * Export and linkage macros shared by every public header.
 *
 * The library is compiled with hidden visibility: only declarations marked
 * KYRT_API are visible to a tool. Every exported C entry point is declared
 * inside KYRT_EXTERN_C_BEGIN / KYRT_EXTERN_C_END so that its name is plain
 * and unmangled, and carries KYRT_NOTHROW: no C++ exception ever leaves the
 * library (an exception escaping a noexcept function terminates the process
 * instead of unwinding through a tool's C frames).
 */
#ifndef KYRT_EXPORT_H
#define KYRT_EXPORT_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define KYRT_API __attribute__((visibility("default")))
#else
#define KYRT_API
#endif

#ifdef __cplusplus
#define KYRT_EXTERN_C_BEGIN extern "C" {
#define KYRT_EXTERN_C_END }
#define KYRT_NOTHROW noexcept
#else
#define KYRT_EXTERN_C_BEGIN
#define KYRT_EXTERN_C_END
#if defined(__GNUC__)
#define KYRT_NOTHROW __attribute__((nothrow))
#else
#define KYRT_NOTHROW
#endif
#endif

#endif /* KYRT_EXPORT_H */
