/*
 * KYRT - support runtime for analysis tools.
 *
 * A streaming writer of indented XML text files, used by the log and open to
 * tools for files of their own.
 *
 * The writer keeps no tree: every call writes its text at once, and the
 * handle remembers only the nesting depth, which sets the indentation. Tags
 * are neither checked nor remembered: callers keep opens and closes balanced.
 * Each call that begins a new line first writes "\n" and then depth tabs, so
 * lines are ended by the next line's beginning.
 *
 * Only string values and string elements are escaped (the five XML special
 * characters become entities, into a 65,536-byte buffer, cut before an
 * entity that would not fit). Attribute strings are written as given, and
 * comments with runs of '-' collapsed to one.
 *
 * Threads sharing a handle bracket each complete record with
 * __KyXMLAcquireFile() and __KyXMLReleaseFile(); the writing calls take no
 * lock. Every call does nothing (and returns 0 where it returns a value)
 * when the handle is null. Write errors are not reported.
 */
#ifndef KYRT_XML_FILE_H
#define KYRT_XML_FILE_H

#include <stdarg.h>

#include "kyrt/export.h"

KYRT_EXTERN_C_BEGIN

/* An open XML file. Opaque. */
typedef struct KyXmlFileRecord* KyXmlFileHandle;

/* Size of a handle's text buffer; escaped and comment text is cut to one
 * byte less. */
#define KY_XML_TEXT_BUFFER_SIZE 65536

/* Opens path for writing ("w"), or for appending when append is non-zero
 * ("a"). A new or empty file gets the two header lines (the XML declaration
 * and a "DO NOT EDIT" comment). The depth starts at 1 when appending (the
 * root element is taken to be open already), else at 0. Returns the handle,
 * or null when the file cannot be opened. Release it with
 * __KyXMLCloseFile(). */
KYRT_API KyXmlFileHandle __KyXMLCreateFile(const char* path, int append) KYRT_NOTHROW;

/* Repairs a stream that has gone bad: returns 1 at once if its position can
 * still be read, else opens the file again for appending (the old stream is
 * left alone) and returns 1, or 0 if that fails. The depth is kept. */
KYRT_API int __KyXMLReopenFile(KyXmlFileHandle handle) KYRT_NOTHROW;

/* Closes the stream; on success frees the handle and sets *handle to null.
 * A failed close leaves the handle in place for a retry. */
KYRT_API void __KyXMLCloseFile(KyXmlFileHandle* handle) KYRT_NOTHROW;

/* In a forked child that must not touch the parent's stream: frees the
 * handle without closing the stream and sets *handle to null. */
KYRT_API void __KyXMLCleanupAfterFork(KyXmlFileHandle* handle) KYRT_NOTHROW;

/* Takes the handle's lock (a spin lock, not recursive) and records the
 * caller's native thread id as its owner. */
KYRT_API void __KyXMLAcquireFile(KyXmlFileHandle handle) KYRT_NOTHROW;

/* Flushes the stream, clears the owner and releases the handle's lock. */
KYRT_API void __KyXMLReleaseFile(KyXmlFileHandle handle) KYRT_NOTHROW;

/* New line, "<name>"; depth + 1 afterwards. */
KYRT_API void __KyXMLWriteOpeningTag(KyXmlFileHandle handle, const char* name) KYRT_NOTHROW;

/* New line, "<name" (attributes follow); depth + 1 afterwards. */
KYRT_API void __KyXMLStartWritingOpeningTag(KyXmlFileHandle handle, const char* name) KYRT_NOTHROW;

/* " name='value'" with "%d", "%llu", the string as given, and "0x%llx". */
KYRT_API void __KyXMLWriteIntegerAttribute(KyXmlFileHandle handle, const char* name,
                                           int32_t value) KYRT_NOTHROW;
KYRT_API void __KyXMLWriteLongIntegerAttribute(KyXmlFileHandle handle, const char* name,
                                               uint64_t value) KYRT_NOTHROW;
KYRT_API void __KyXMLWriteStringAttribute(KyXmlFileHandle handle, const char* name,
                                          const char* value) KYRT_NOTHROW;
KYRT_API void __KyXMLWriteHexadecimalAttribute(KyXmlFileHandle handle, const char* name,
                                               uint64_t value) KYRT_NOTHROW;
KYRT_API void __KyXMLWriteHexadecimalAddressAttribute(KyXmlFileHandle handle, const char* name,
                                                      const void* address) KYRT_NOTHROW;

/* ">" after the attributes. */
KYRT_API void __KyXMLFinishWritingOpeningTag(KyXmlFileHandle handle) KYRT_NOTHROW;

/* "/>": ends an opening tag as an empty element; depth - 1 first. */
KYRT_API void __KyXMLCloseOpeningTag(KyXmlFileHandle handle) KYRT_NOTHROW;

/* The escaped string, on the current line. */
KYRT_API void __KyXMLWriteStringValue(KyXmlFileHandle handle, const char* value) KYRT_NOTHROW;

/* "%d" on the current line. */
KYRT_API void __KyXMLWriteIntValue(KyXmlFileHandle handle, int32_t value) KYRT_NOTHROW;

/* depth - 1, then new line, "</name>". */
KYRT_API void __KyXMLWriteClosingTag(KyXmlFileHandle handle, const char* name) KYRT_NOTHROW;

/* depth - 1, then "</name>" on the current line. */
KYRT_API void __KyXMLAppendClosingTag(KyXmlFileHandle handle, const char* name) KYRT_NOTHROW;

/* New line, "<name>value</name>" with "%lu", "%llu", "0x%llx", or the
 * escaped string. */
KYRT_API void __KyXMLWriteDecimalElement(KyXmlFileHandle handle, const char* name,
                                         uint64_t value) KYRT_NOTHROW;
KYRT_API void __KyXMLWriteLongDecimalElement(KyXmlFileHandle handle, const char* name,
                                             uint64_t value) KYRT_NOTHROW;
KYRT_API void __KyXMLWriteHexadecimalElement(KyXmlFileHandle handle, const char* name,
                                             uint64_t value) KYRT_NOTHROW;
KYRT_API void __KyXMLWriteHexadecimalAddressElement(KyXmlFileHandle handle, const char* name,
                                                    const void* address) KYRT_NOTHROW;
KYRT_API void __KyXMLWriteStringElement(KyXmlFileHandle handle, const char* name,
                                        const char* value) KYRT_NOTHROW;

/* New line, "<!-- text -->" with the formatted text (cut to 65,535 bytes)
 * and runs of '-' collapsed to one. The text is not escaped. */
KYRT_API void __KyXMLWriteComment(KyXmlFileHandle handle, const char* format, ...) KYRT_NOTHROW
    __attribute__((format(printf, 2, 3)));
KYRT_API void __KyXMLWriteCommentV(KyXmlFileHandle handle, const char* format,
                                   va_list arguments) KYRT_NOTHROW;

KYRT_EXTERN_C_END

#endif /* KYRT_XML_FILE_H */
