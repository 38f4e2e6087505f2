/*
 * KYRT - support runtime for analysis tools.
 *
 * Tool options: typed command-line options registered under named parsers,
 * parsing of the tool's command line, help text and the logging of option
 * values.
 *
 * A tool obtains a parser (one per tool or component), registers its
 * options under it with defaults, optional lists of valid arguments and
 * flags of its own, hands its argument vector to __KyParseOptions2() and
 * then reads the values. Parsers and options live in process-wide fixed
 * tables (KY_OPTION_MAX_PARSERS parsers, KY_OPTION_MAX_OPTIONS options
 * shared by all parsers); their ids are small integers handed out densely
 * and never reused, not even after a parser is released.
 *
 * Command-line syntax: every option is one token beginning with '-' and
 * matched exactly (no abbreviations, no "name=value"); a boolean takes no
 * argument and is turned off by writing "-no-" in place of its leading '-'
 * ("-no-verbose" for "-verbose"); every other option takes exactly the next
 * token, which may not begin with '-'. Integer values are read with strtol
 * in base 0 (decimal, 0x hexadecimal, leading-0 octal) and must lie in
 * 0 .. 2,147,483,647.
 *
 * Misuse by the tool (an unknown or foreign option id, a wrong type, a
 * value outside the valid arguments) is a defect of the tool: the runtime
 * reports it with __KyLogFatalToolDefect() and the process ends with exit
 * status 255. Exhausted tables fail softly with KY_OPTION_INVALID_ID.
 *
 * Concurrency: only the parser and option counters are atomic, so ids are
 * distinct even when registrations race; records are written without a
 * lock. Register, parse and set options on one thread during start-up,
 * before other threads read them.
 *
 * Strings the registry returns belong to it: they stay valid until the
 * option is set again or its parser is released, and must not be freed.
 */
#ifndef KYRT_OPTIONS_H
#define KYRT_OPTIONS_H

#include "kyrt/export.h"

KYRT_EXTERN_C_BEGIN

/* Fixed table sizes. */
#define KY_OPTION_MAX_PARSERS 16u
#define KY_OPTION_MAX_OPTIONS 256u

/* The failure result of the functions returning a parser or option id, the
 * enumeration value of an option whose value matches no valid argument, and
 * the parser id of a released option. */
#define KY_OPTION_INVALID_ID 0xFFFFFFFFu

/* Option types. */
#define KY_OPTION_TYPE_BOOLEAN 0u /* 0 or 1; no argument on the command line */
#define KY_OPTION_TYPE_INTEGER 1u /* 32-bit integer */
#define KY_OPTION_TYPE_STRING 2u  /* text */
#define KY_OPTION_TYPE_ENUM 3u    /* text mapped to a number by the valid arguments */
#define KY_OPTION_TYPE_PATH 4u    /* text with runs of '/' folded when stored */

/* Called by __KyProcessAppendOptionValues() once per value of an append
 * option, in the order the values were set, with the value (owned by the
 * registry; null only if the option's values changed under the iteration)
 * and the caller's context. The result is ignored. */
typedef int (*KyOptionValueCallback)(const char* value, void* context);

/* ------------------------------------------------------------------------ */
/* Parsers                                                                   */
/* ------------------------------------------------------------------------ */

/* Creates a parser named name (a private copy is kept; the name labels the
 * help text and the option log, and must be given again to release the
 * parser). Every call makes a new parser, even for a name already in use.
 * Returns its id, 0 to 15, or KY_OPTION_INVALID_ID when name is null or all
 * KY_OPTION_MAX_PARSERS parsers exist (silently). Thread-safe. */
KYRT_API uint32_t __KyGetOptionParser(const char* name) KYRT_NOTHROW;

/* Releases parser and every option registered under it: their names,
 * descriptions, defaults, values and valid arguments are freed and their
 * ids no longer match any call. The parser's id is not handed out again.
 * name must begin with the name the parser was created with (the stored
 * name is compared as a prefix of name). Returns 1, or 0 when parser does
 * not exist or has been released, or name is null or does not match. Not
 * synchronised: no other thread may use the parser's options meanwhile. */
KYRT_API int __KyReleaseOptionParserHandle(uint32_t parser, const char* name) KYRT_NOTHROW;

/* ------------------------------------------------------------------------ */
/* Registration                                                              */
/* ------------------------------------------------------------------------ */

/* Each registration registers an option under parser (an id below the
 * number of parsers created so far) and returns its id, or
 * KY_OPTION_INVALID_ID when all KY_OPTION_MAX_OPTIONS options exist
 * (silently). Ids are handed out densely in order of registration across
 * all parsers. Parameters common to all five:
 *   parser        the owning parser
 *   name          the option as typed on the command line; must begin
 *                 with '-'; copied
 *   description   the help text; copied
 *   flags         the tool's own bits, returned by __KyGetOptionFlags()
 *                 and never interpreted by the runtime
 *   listedInHelp  0 hides the option from __KyPrintHelp() unless all
 *                 options are asked for
 * A null name or description or an unknown parser, and a name not
 * beginning with '-', are tool defects (fatal). The option starts unset,
 * its value being the default. Thread-safe as to the ids handed out. */

/* A boolean option; defaultValue is stored as 0 (for 0) or 1. */
KYRT_API uint32_t __KyRegisterBooleanOption(uint32_t parser, const char* name,
                                            const char* description, int32_t defaultValue,
                                            uint32_t flags, int32_t listedInHelp) KYRT_NOTHROW;

/* An integer option. */
KYRT_API uint32_t __KyRegisterIntegerOption(uint32_t parser, const char* name,
                                            const char* description, int32_t defaultValue,
                                            uint32_t flags, int32_t listedInHelp) KYRT_NOTHROW;

/* A string option; defaultValue may be null (no default) and is copied.
 * With append non-zero every value set is added behind the earlier ones
 * instead of replacing them. */
KYRT_API uint32_t __KyRegisterStringOption(uint32_t parser, const char* name,
                                           const char* description, const char* defaultValue,
                                           uint32_t flags, int32_t append,
                                           int32_t listedInHelp) KYRT_NOTHROW;

/* A string enumeration option: a string whose valid arguments, registered
 * with __KySetValidStringOptionArgumentWithEnum(), map it to a number. Never
 * an append option. defaultValue may be null and is copied. */
KYRT_API uint32_t __KyRegisterStringEnumOption(uint32_t parser, const char* name,
                                               const char* description, const char* defaultValue,
                                               uint32_t flags, int32_t listedInHelp) KYRT_NOTHROW;

/* A path option: a string option whose default and values have every run of
 * '/' folded into one when stored. append as for string options. */
KYRT_API uint32_t __KyRegisterPathOption(uint32_t parser, const char* name, const char* description,
                                         const char* defaultValue, uint32_t flags, int32_t append,
                                         int32_t listedInHelp) KYRT_NOTHROW;

/* ------------------------------------------------------------------------ */
/* Valid arguments                                                           */
/* ------------------------------------------------------------------------ */

/* Each adds one valid argument to the end of option's list; once an option
 * has a list, only values matching an entry may be set (integers by
 * equality; strings when the value given is a prefix of an entry, so that
 * abbreviations are accepted and the value given is what is stored). Only
 * integer, string and enumeration options that are not append options take
 * lists. Returns 1. An option id not registered under parser, an append
 * option or another type are tool defects (fatal). Not synchronised. */

/* Adds the integer value. */
KYRT_API int __KySetValidIntegerOptionArgument(uint32_t parser, uint32_t option,
                                               int32_t value) KYRT_NOTHROW;

/* Adds a copy of value, with enumeration value KY_OPTION_INVALID_ID. */
KYRT_API int __KySetValidStringOptionArgument(uint32_t parser, uint32_t option,
                                              const char* value) KYRT_NOTHROW;

/* Adds a copy of value, mapped to enumValue. */
KYRT_API int __KySetValidStringOptionArgumentWithEnum(uint32_t parser, uint32_t option,
                                                      const char* value,
                                                      uint32_t enumValue) KYRT_NOTHROW;

/* ------------------------------------------------------------------------ */
/* Setting values                                                            */
/* ------------------------------------------------------------------------ */

/* Each sets option (of the type the function names) and marks it set for
 * good. Returns 1. Tool defects (fatal): an option id not registered under
 * parser, an option of another type, a value outside the option's valid
 * arguments, a null string. Not synchronised. */

/* Sets a boolean option to value (stored as given). */
KYRT_API int __KySetBooleanOption(uint32_t parser, uint32_t option, int32_t value) KYRT_NOTHROW;

/* Sets an integer option to value. */
KYRT_API int __KySetIntegerOption(uint32_t parser, uint32_t option, int32_t value) KYRT_NOTHROW;

/* Sets a string or enumeration option to a copy of value, or, for an append
 * option, adds a copy behind its earlier values. The option is set as the
 * type it has, so a path option is served as by __KySetPathOption(); a
 * boolean or integer option (meant for the setters above) takes the number
 * KY_OPTION_INVALID_ID, value being ignored. */
KYRT_API int __KySetStringOption(uint32_t parser, uint32_t option, const char* value) KYRT_NOTHROW;

/* The same for a path option; the stored copy has runs of '/' folded. */
KYRT_API int __KySetPathOption(uint32_t parser, uint32_t option, const char* value) KYRT_NOTHROW;

/* ------------------------------------------------------------------------ */
/* Reading values                                                            */
/* ------------------------------------------------------------------------ */

/* The value of a boolean option (its default while unset). An option id
 * not registered under parser or of another type is a tool defect
 * (fatal). */
KYRT_API int32_t __KyGetBooleanOptionValue(uint32_t parser, uint32_t option) KYRT_NOTHROW;

/* The value of an integer option; failures as for booleans. */
KYRT_API int32_t __KyGetIntegerOptionValue(uint32_t parser, uint32_t option) KYRT_NOTHROW;

/* The first value of a string or enumeration option: the default while
 * unset (null when there is none). Owned by the registry. The option is
 * read as the type it has: a path option gives its first path, a boolean or
 * integer option, which holds no string, null. An option id not registered
 * under parser is a tool defect (fatal). */
KYRT_API const char* __KyGetStringOptionValue(uint32_t parser, uint32_t option) KYRT_NOTHROW;

/* Value number index (1 for the first) of a string option of type
 * KY_OPTION_TYPE_STRING (append options hold several). Null when there is
 * no such value; index 0, or an index above the number of values of a set
 * option, is also logged as an error. Owned by the registry. An option id
 * not registered under parser or of another type is a tool defect
 * (fatal). */
KYRT_API const char* __KyGetStringOptionArgumentValue(uint32_t parser, uint32_t option,
                                                      uint32_t index) KYRT_NOTHROW;

/* The first value of a path option; as __KyGetStringOptionValue(). */
KYRT_API const char* __KyGetPathOptionValue(uint32_t parser, uint32_t option) KYRT_NOTHROW;

/* Value number index of a path option; as
 * __KyGetStringOptionArgumentValue(). */
KYRT_API const char* __KyGetPathOptionArgumentValue(uint32_t parser, uint32_t option,
                                                    uint32_t index) KYRT_NOTHROW;

/* The enumeration value of an enumeration option: that of the first valid
 * argument that begins with the option's value, or KY_OPTION_INVALID_ID
 * when the option has no value or none matches. An option id not
 * registered under parser or not an enumeration is a tool defect
 * (fatal). */
KYRT_API uint32_t __KyGetStringOptionEnumValue(uint32_t parser, uint32_t option) KYRT_NOTHROW;

/* 1 once a value has been set (by the command line or a setter), 0 while
 * the option holds its default. An option id not registered under parser is
 * a tool defect (fatal). */
KYRT_API int __KyIsOptionSet(uint32_t parser, uint32_t option) KYRT_NOTHROW;

/* The flags the option was registered with, or KY_OPTION_INVALID_ID (with
 * an error in the log) when option is not registered under parser. */
KYRT_API uint32_t __KyGetOptionFlags(uint32_t parser, uint32_t option) KYRT_NOTHROW;

/* The option's name (owned by the registry), or null when option is not
 * registered under parser. */
KYRT_API const char* __KyGetOptionName(uint32_t parser, uint32_t option) KYRT_NOTHROW;

/* The number of values set: 0 while unset, 1 for a set option that is not
 * an append option, the count of values for an append option. parser is not
 * looked at; an id beyond the table gives 0. */
KYRT_API uint32_t __KyGetOptionNumberOfArguments(uint32_t parser, uint32_t option) KYRT_NOTHROW;

/* Calls callback(value, context) for each value of a set append option,
 * first to last; nothing for an option without values or a null callback.
 * An option id not registered under parser, or an option that is not an
 * append option, is a tool defect (fatal). */
KYRT_API void __KyProcessAppendOptionValues(uint32_t parser, uint32_t option,
                                            KyOptionValueCallback callback,
                                            void* context) KYRT_NOTHROW;

/* ------------------------------------------------------------------------ */
/* Command line, help and option log                                         */
/* ------------------------------------------------------------------------ */

/* Parses the tool's arguments arguments[0 .. count) into the options of
 * parser (arguments[0] is the first option, not a program name). Returns 1
 * when every token was used, 0 at the first error: a token not beginning
 * with '-', an unknown option, "-no-" before a non-boolean, a missing value
 * or a bad integer is logged as an ERROR record of KYLOG_MSG_BAD_OPTION or
 * KYLOG_MSG_BAD_ARGUMENT followed by an INFO line; a parser id above 15 is
 * logged as an error. Options set before the error keep their values. A
 * value outside an option's valid arguments is a tool defect (fatal). Not
 * synchronised. */
KYRT_API int __KyParseOptions2(uint32_t parser, uint32_t count,
                               char* const* arguments) KYRT_NOTHROW;

/* The same as __KyParseOptions2(), under its older name. */
KYRT_API int __KyParseOptions(uint32_t parser, uint32_t count, char* const* arguments) KYRT_NOTHROW;

/* Prints parser's help text to standard output: a heading with the
 * parser's name, then one line per option registered under it in id order,
 * with its name, description and default. Hidden options are listed too
 * when all is non-zero. Flushes standard output. */
KYRT_API void __KyPrintHelp(uint32_t parser, int32_t all) KYRT_NOTHROW;

/* __KyPrintHelp(parser, all) for every parser created so far. */
KYRT_API void __KyPrintHelpAll(int32_t all) KYRT_NOTHROW;

/* Writes parser's current option values to the log, one INFO record per
 * option after a heading record (the values of an append option on one
 * line, cut to 2047 characters). Flushes standard output. */
KYRT_API void __KyLogToolOptionValues(uint32_t parser) KYRT_NOTHROW;

KYRT_EXTERN_C_END

#endif /* KYRT_OPTIONS_H */
