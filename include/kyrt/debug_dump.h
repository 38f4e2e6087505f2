/*
 * KYRT - support runtime for analysis tools.
 *
 * Debug dump channels: a cheap, switchable trace for tools.
 *
 * A channel is a number: its index in a channel map, an array of entries
 * that each pair a bit mask with a short name. A tool enables channels from
 * an option text (channel names or a hexadecimal mask, see
 * __KyParseDbgDumpOption), asks __KyIsDbgDumpEnabled() before doing
 * expensive work, and writes trace lines with __KyDbgMessageDumpInternal(),
 * which go to the log ("kylog.log") as INTERNAL information records tagged
 * with the channel's name and the native thread id.
 *
 * A channel is enabled when its number is below the map's entry count and
 * the low 32 bits of its mask share a bit with the process-wide enabled
 * mask (a 32-bit value, 0 at load). Only the low 32 bits of a mask ever take
 * part: the upper half of an entry's mask is ignored everywhere.
 *
 * Until a tool installs a map of its own, the built-in map below is used
 * (channel numbers KY_DBG_CHANNEL_*); its composite entries name groups of
 * the channels before them.
 *
 * Threads: the map, its count and the enabled mask are plain process-wide
 * values without a lock. Install maps and parse options at start-up, before
 * tracing threads run; afterwards any thread may test and dump.
 */
#ifndef KYRT_DEBUG_DUMP_H
#define KYRT_DEBUG_DUMP_H

#include "kyrt/export.h"

KYRT_EXTERN_C_BEGIN

/* One channel of a map. The layout is fixed (tools build their own maps):
 * offsets mask 0, name 8; 16 bytes. */
typedef struct KyDbgMapEntry {
  uint64_t mask;    /* the channel's bits; only the low 32 take part */
  const char* name; /* the channel's name; null ends a map early */
} KyDbgMapEntry;

/* The most entries of a map that are used; later ones are ignored. */
#define KY_DBG_MAX_CHANNELS 32

/* Size of the buffer a dump's text is formatted into: texts are cut to one
 * byte less. */
#define KY_DBG_MESSAGE_BUFFER_SIZE 1024

/* The channels of the built-in map, with their masks. */
#define KY_DBG_CHANNEL_NONE 0        /* 0x0: an option naming it clears the mask */
#define KY_DBG_CHANNEL_API 1         /* 0x1 */
#define KY_DBG_CHANNEL_CAL 2         /* 0x2 */
#define KY_DBG_CHANNEL_MEM 3         /* 0x4 */
#define KY_DBG_CHANNEL_BUF 4         /* 0x8 */
#define KY_DBG_CHANNEL_MOD 5         /* 0x10 */
#define KY_DBG_CHANNEL_CFG 6         /* 0x20 */
#define KY_DBG_CHANNEL_CHK 7         /* 0x40 */
#define KY_DBG_CHANNEL_ZCA 8         /* 0x80 */
#define KY_DBG_CHANNEL_SCR 9         /* 0x100 */
#define KY_DBG_CHANNEL_KYCORE 10     /* 0x1FF: channels 1 to 9 */
#define KY_DBG_CHANNEL_TRC 11        /* 0x200 */
#define KY_DBG_CHANNEL_IMG 12        /* 0x400 */
#define KY_DBG_CHANNEL_RTN 13        /* 0x800 */
#define KY_DBG_CHANNEL_BBL 14        /* 0x1000 */
#define KY_DBG_CHANNEL_INS 15        /* 0x2000 */
#define KY_DBG_CHANNEL_THR 16        /* 0x4000 */
#define KY_DBG_CHANNEL_RTL 17        /* 0x8000 */
#define KY_DBG_CHANNEL_TRA 18        /* 0x10000 */
#define KY_DBG_CHANNEL_ANT 19        /* 0x20000 */
#define KY_DBG_CHANNEL_KYET 20       /* 0x3FE00: channels 11 to 19 */
#define KY_DBG_CHANNEL_DOTNET_GC 21  /* 0x40000 */
#define KY_DBG_CHANNEL_DOTNET_API 22 /* 0x80000 */
#define KY_DBG_CHANNEL_DOTNET_MEM 23 /* 0x100000 */
#define KY_DBG_CHANNEL_DOTNET_JIT 24 /* 0x200000 */
#define KY_DBG_CHANNEL_DOTNET_GEN 25 /* 0x400000 */
#define KY_DBG_CHANNEL_DOTNET 26     /* 0x7C0000: channels 21 to 25 */
#define KY_DBG_CHANNEL_ALL 27        /* 0x7FFFFF */
#define KY_DBG_BUILT_IN_CHANNELS 28

/* Installs map as the channel map. The map is not copied: it must stay
 * valid as long as channels are tested or dumped. Its channel count is the
 * number of leading entries whose name is not null, at most
 * KY_DBG_MAX_CHANNELS (entries after the 32nd are never read). The enabled
 * mask is kept as it is. Returns 1, or 0 for a null map (the current map is
 * kept). Not synchronised: call at start-up. */
KYRT_API int __KyDbgRegisterDbgMap(const KyDbgMapEntry* map) KYRT_NOTHROW;

/* Applies an option text to the enabled mask. Returns 1 when the whole text
 * was understood, 0 otherwise (nothing is logged). The text is either
 *   - "0x" or "0X" and a hexadecimal number (read with sscanf "%x"; what
 *     follows the digits is ignored): 0 clears the mask, any other value is
 *     ORed into it. "0x" without digits, and any other text starting with
 *     "0" (a lone "0", "010"), are refused and change nothing;
 *   - or a comma-separated list of items, applied in turn. An item equal to
 *     the first n characters of a channel's name (n = the item's length,
 *     compared without regard to case) ORs that channel's mask into the
 *     enabled mask, or clears the mask when the channel's mask is 0; the
 *     first channel in map order whose name starts with the item wins, so
 *     "dot" means DOTNET_GC. An item "no-" followed by such a prefix removes
 *     the channel's mask instead. An empty item (",," or a leading comma)
 *     has length 0 and so matches channel 0 (in the built-in map NONE,
 *     which clears the mask); a trailing comma adds nothing. The first item that matches no channel
 *     ends the parse with 0; the items before it stay applied.
 * An empty text changes nothing and returns 1; a null text returns 0.
 * Not synchronised: call at start-up. */
KYRT_API int __KyParseDbgDumpOption(const char* text) KYRT_NOTHROW;

/* 1 when channel is below the map's count and its mask shares a bit with
 * the enabled mask, else 0. Costs a bound check and one AND. Thread-safe
 * once maps and options are set. */
KYRT_API int __KyIsDbgDumpEnabled(unsigned channel) KYRT_NOTHROW;

/* When channel is enabled, formats the text (cut to
 * KY_DBG_MESSAGE_BUFFER_SIZE - 1 characters; a null format is an empty
 * text) and logs it as an INTERNAL record of severity INFO whose text is
 * "[%-4s] [%-5d] %s": the channel's name, the caller's native thread id and
 * the text. When the channel is disabled nothing is formatted. Before
 * __KyRtStartup() the record is dropped like every log record.
 * Thread-safe. */
KYRT_API void __KyDbgMessageDumpInternal(unsigned channel, const char* format, ...) KYRT_NOTHROW
    __attribute__((format(printf, 2, 3)));

KYRT_EXTERN_C_END

#endif /* KYRT_DEBUG_DUMP_H */
