/*
 * KYRT - support runtime for analysis tools.
 *
 * Counted strings, environment variables, UTF-8 and wide-text conversion,
 * splitting lists of numbers, and processor queries.
 */
#ifndef KYRT_STRINGS_H
#define KYRT_STRINGS_H

#include <wchar.h>

#include "kyrt/export.h"

KYRT_EXTERN_C_BEGIN

/* A growable string whose record and text come from one memory category.
 * Not locked. */
typedef struct KyString {
  uint32_t length;   /* characters in text, without the NUL */
  uint32_t capacity; /* bytes allocated for text */
  uint32_t category; /* memory category of the record and its text */
  char* text;        /* NUL-terminated */
} KyString;

/* Allocates a string with a text buffer of capacity bytes from category and
 * sets it to init. Release with __KyStrDestroy(). */
KYRT_API KyString* __KyStrAlloc(uint32_t category, uint32_t capacity,
                                const char* init) KYRT_NOTHROW;

/* Replaces the text. When it does not fit, the buffer is replaced by one of
 * twice the new length. Returns string. */
KYRT_API KyString* __KyStrSet(KyString* string, const char* text) KYRT_NOTHROW;

/* Appends text; when it does not fit, the buffer grows to twice (capacity +
 * appended length). Nothing for a null string or text. */
KYRT_API void __KyStrAppend(KyString* string, const char* text) KYRT_NOTHROW;

/* Frees the text and the record; nothing for null. */
KYRT_API void __KyStrDestroy(KyString* string) KYRT_NOTHROW;

/* getenv(name): the process's own storage, not a copy; null for a null
 * name. */
KYRT_API char* __KyGetEnvironmentVariable(const char* name) KYRT_NOTHROW;

/* setenv(name, value, overwrite). Returns 1, or 0 when either is null or
 * setenv fails. */
KYRT_API int __KySetEnvironmentVariableEx(const char* name, const char* value,
                                          int overwrite) KYRT_NOTHROW;

/* __KySetEnvironmentVariableEx(name, value, 1). */
KYRT_API int __KySetEnvironmentVariable(const char* name, const char* value) KYRT_NOTHROW;

/* unsetenv(name); nothing for null. */
KYRT_API void __KyUnsetEnvironmentVariable(const char* name) KYRT_NOTHROW;

/* Converts source (multi-byte, in the current locale) into n wide
 * characters at destination, without a terminating NUL, where n is the
 * converted length. Returns n, or 0 when source converts to nothing or size
 * (in bytes) is greater than (n + 1) * 4. */
KYRT_API size_t __KyUtf8ToWstring(wchar_t* destination, size_t size,
                                  const char* source) KYRT_NOTHROW;

/* Converts source into n multi-byte characters at destination, without a
 * terminating NUL. Returns n, or 0 when source converts to nothing or size
 * is greater than n + 1. */
KYRT_API size_t __KyWstringToUtf8(char* destination, size_t size,
                                  const wchar_t* source) KYRT_NOTHROW;

/* Newly allocated, NUL-terminated conversions (category 0); release with
 * __KyFreeWstring() and __KyFreeMbString(). */
KYRT_API wchar_t* __KyAllocateAndConvertUtf8ToWstring(const char* source) KYRT_NOTHROW;
KYRT_API char* __KyAllocateAndConvertWstringToUtf8(const wchar_t* source) KYRT_NOTHROW;
KYRT_API void __KyFreeMbString(const char* string) KYRT_NOTHROW;
KYRT_API void __KyFreeWstring(const wchar_t* string) KYRT_NOTHROW;

/* Executes cpuid with EAX = leaf and ECX = subleaf; stores EAX, EBX, ECX and
 * EDX in out[0] to out[3]. */
KYRT_API void __KyCpuidEx(uint32_t leaf, uint32_t subleaf, uint32_t out[4]) KYRT_NOTHROW;

/* Bytes an XSAVE area needs for every feature the processor supports (cpuid
 * leaf 13), or 512 (the legacy area) when the processor does not say.
 * Computed once; thread-safe. */
KYRT_API uint32_t __KyGetXsaveAreaMaxSize(void) KYRT_NOTHROW;

KYRT_EXTERN_C_END

#ifdef __cplusplus
#include <vector>

namespace kyrt {

/* Appends to out the numbers of text separated by separator (atol of each
 * item, so an item not starting with a number gives 0). Nothing for a null
 * or empty text. */
KYRT_API void StrToNums(const char* text, char separator, std::vector<unsigned long>& out) noexcept;

}  // namespace kyrt
#endif

#endif /* KYRT_STRINGS_H */
