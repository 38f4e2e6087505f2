/*
 * KYRT - support runtime for analysis tools.
 *
 * Zero-cost annotation (ZCA) tables: the reader of the ".qzv_notify_tab"
 * section that compilers leave in a module image, and of external
 * annotation definition files for modules that carry no such section.
 *
 * A section holds one or more annotation tables (format versions 1.1 and
 * 1.2), possibly with zero bytes between them. Each table entry ties a code
 * address and a name to a location given as a small DWARF expression: a
 * constant, a register, or a register plus an offset. The parser hands every
 * entry to a callback of the tool as a KyZCARecord. The runtime loads no
 * module itself: the tool finds the section's bytes and the module's load
 * address and passes them in.
 *
 * The section comes from the program being analysed and may be damaged or
 * hostile: the parser never reads outside the bytes it is given. A damaged
 * table is logged (an INFO text record beginning "zca_parser:" or
 * "ZCA parser:") and ends the parse of that section; the entries delivered
 * before it stay delivered.
 *
 * External definition file: a text file, one annotation a line, up to five
 * fields separated by white space (white space inside double quotes does not
 * separate):
 *
 *   NAME "MODULE_PATH" OFFSET ARGUMENT1 LINK_BASE
 *   start "/opt/app/lib.so" 1a0 0x10 400000
 *
 * OFFSET and LINK_BASE are hexadecimal, ARGUMENT1 is decimal, 0x hexadecimal
 * or 0 octal. The annotation's address in a module loaded at base is
 * OFFSET + base - LINK_BASE. A line without ARGUMENT1 is kept but never
 * delivered; a missing LINK_BASE is 0.
 */
#ifndef KYRT_ZCA_H
#define KYRT_ZCA_H

#include "kyrt/export.h"

KYRT_EXTERN_C_BEGIN

/* The name of the annotation section in a module image. */
#define KY_ZCA_SECTION_NAME ".qzv_notify_tab"

/* The flag word of a version 1.2 table. */
/* Entry addresses are relative to the start of their table's header. */
KYRT_API extern const uint64_t KY_ZCA_FLAG_PCREL; /* 1 */
/* Entries are 20 bytes and carry a 32-bit probe word. */
KYRT_API extern const uint64_t KY_ZCA_FLAG_PROBE; /* 2 */
/* Entry addresses are 32-bit signed values. */
KYRT_API extern const uint64_t KY_ZCA_FLAG_32BIT; /* 4 */

/* One annotation argument. 16 bytes: value 0, isRegister 8, offset 12. */
typedef struct KyZCAArgument {
  uint64_t value;      /* a constant, or a DWARF register number when isRegister is 1 */
  uint32_t isRegister; /* 1 when value names a register, 0 for a constant */
  int32_t offset;      /* added to the register's content; 0 otherwise */
} KyZCAArgument;

/* One annotation, as a callback receives it. Valid only during the call.
 * 64 bytes: address 0, name 8, expression 16, probe 24, argumentCount 28,
 * arguments 32. */
typedef struct KyZCARecord {
  uint64_t address;           /* the annotated code address, already relocated */
  const char* name;           /* NUL-terminated annotation name */
  const uint8_t* expression;  /* the entry's location expression (its ULEB128
                                 length, then the DWARF bytes); null for
                                 external definitions */
  uint32_t probe;             /* the probe word; 0 when the entry has none */
  uint32_t argumentCount;     /* 1 for section entries, 2 for external ones */
  KyZCAArgument arguments[2]; /* only the first argumentCount are meaningful */
} KyZCARecord;

/* A node of the external definition list. Every pointer it holds is owned
 * by the node and comes from __KyMalloc. 48 bytes: offset 0, name 8,
 * modulePath 16, argumentKind 24, arguments 32, next 40. */
typedef struct KyZCADefinition {
  uint32_t offset;              /* module-relative address (hexadecimal field 3) */
  char* name;                   /* the annotation name (field 1) */
  char* modulePath;             /* field 2 without its quotes, runs of "/" collapsed;
                                   null when the field is missing or shorter
                                   than two characters */
  int32_t argumentKind;         /* 2 when the line had a fourth field, else 0 */
  KyZCAArgument* arguments;     /* two arguments: values from fields 4 and 5
                                   (the fifth is the module's link-time base);
                                   null without a fourth field */
  struct KyZCADefinition* next; /* the next node of the list */
} KyZCADefinition;

/* Receives one annotation. record is valid only during the call and must
 * not be kept; user is the pointer given to the parsing call. The result is
 * ignored (return 0). */
typedef int (*KyZCARecordCallback)(KyZCARecord* record, void* user);

/* Parses the annotation tables of a section and calls callback once per
 * entry, in section order.
 *   moduleBase  the module's load address, added to version 1.1 addresses
 *               (version 1.2 addresses do not use it)
 *   section     the section's bytes as loaded (PC-relative 1.2 addresses
 *               are relative to where these bytes lie); not modified
 *   size        the section's size in bytes; nothing is read beyond it
 *   callback    receives each record; null parses and logs without
 *               delivering
 *   user        handed to callback unchanged
 * Logs "Found ZCA section with version 1.x" for each table. A damaged table
 * is logged and ends the parse; earlier entries stay delivered. A null
 * section or a size of 0 does nothing. Keeps no state: reentrant and
 * thread-safe. */
KYRT_API void __KyZCAParseAndProcessRecords(uint64_t moduleBase, const uint8_t* section,
                                            uint64_t size, KyZCARecordCallback callback,
                                            void* user) KYRT_NOTHROW;

/* Parses one line of a definition file into definition, which should be
 * zeroed: the fields found are stored, strings and the argument block
 * newly allocated with __KyMalloc (the caller releases them with __KyFree).
 * The line is modified (trailing white space cut). A sixth field is logged
 * ("zca_file_parser: Unexpected number of annotation arguments: 5") and
 * ends the parse, the fields already stored staying. Returns 1 when the
 * line held exactly five fields, 0 otherwise (also for a null line or
 * definition). Thread-safe on distinct lines and definitions. */
KYRT_API int __KyZCAParseDefinition(char* line, KyZCADefinition* definition) KYRT_NOTHROW;

/* Reads the definition file at path (lines of at most 65,534 bytes; the
 * rest of a longer line is skipped) and appends its definitions to the
 * process-wide list, a node per non-blank line whatever the line held.
 * Returns 1 when the file could be opened, else 0 after logging
 * FAIL_OPEN_FILE (ERROR) with the path; nothing is added then. Not
 * thread-safe: the list is loaded, processed and cleaned up by one thread at
 * a time. */
KYRT_API int __KyZCALoadExternalDefinitions(const char* path) KYRT_NOTHROW;

/* Calls callback for each definition of the list whose module path equals
 * moduleName, or whose module path's base name equals moduleName
 * (moduleName is compared whole, after runs of "/" are collapsed, never
 * reduced to its base name). The record has address = offset + moduleBase
 * - link-time base, expression null, probe 0 and both arguments. A null
 * moduleName is logged as an error ("Cannot allocate memory to copy module
 * name") and delivers nothing; a null callback delivers nothing.
 * Definitions without arguments or without a module path are skipped. Not
 * thread-safe (see above). */
KYRT_API void __KyZCAProcessExternalRecords(const char* moduleName, uint64_t moduleBase,
                                            KyZCARecordCallback callback, void* user) KYRT_NOTHROW;

/* Frees every node of the definition list and what it owns. The list's
 * head is left as it was: this is the last call of this family, and no
 * function that reads the list may be called afterwards. */
KYRT_API void __KyZCACleanupDefinitions(void) KYRT_NOTHROW;

KYRT_EXTERN_C_END

#endif /* KYRT_ZCA_H */
