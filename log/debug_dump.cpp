// Debug dump channels: the channel map, the enabled mask, the option text
// and the trace records.
#include "kyrt/debug_dump.h"

#include <strings.h>

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "kyrt/files.h"
#include "kyrt/log.h"
#include "log/debug_dump_state.h"
#include "runtime/atomic_ops.h"
#include "runtime/thread_hooks.h"

// Tools build maps of their own: the entry layout is part of the interface.
static_assert(sizeof(KyDbgMapEntry) == 16, "a map entry is two 64-bit words");
static_assert(offsetof(KyDbgMapEntry, mask) == 0, "the mask comes first");
static_assert(offsetof(KyDbgMapEntry, name) == 8, "then the name pointer");

namespace {

// Composite entries name groups of the channels before them; "NONE" has
// mask 0, so naming it clears the enabled mask. A nameless entry ends the
// map, as it ends a tool's, so that the built-in map can be installed again
// through __KyDbgRegisterDbgMap without its end being read past.
constexpr KyDbgMapEntry kBuiltInMap[KY_DBG_BUILT_IN_CHANNELS + 1] = {
    {0x0, "NONE"},
    {0x1, "API"},
    {0x2, "CAL"},
    {0x4, "MEM"},
    {0x8, "BUF"},
    {0x10, "MOD"},
    {0x20, "CFG"},
    {0x40, "CHK"},
    {0x80, "ZCA"},
    {0x100, "SCR"},
    {0x1FF, "KYCORE"},
    {0x200, "TRC"},
    {0x400, "IMG"},
    {0x800, "RTN"},
    {0x1000, "BBL"},
    {0x2000, "INS"},
    {0x4000, "THR"},
    {0x8000, "RTL"},
    {0x10000, "TRA"},
    {0x20000, "ANT"},
    {0x3FE00, "KYET"},
    {0x40000, "DOTNET_GC"},
    {0x80000, "DOTNET_API"},
    {0x100000, "DOTNET_MEM"},
    {0x200000, "DOTNET_JIT"},
    {0x400000, "DOTNET_GEN"},
    {0x7C0000, "DOTNET"},
    {0x7FFFFF, "ALL"},
    {0x0, nullptr},
};

// The process-wide channel state.
//   map          the installed channel map; never null (the built-in map
//                until a tool installs its own)
//   count        the channels of map in use: its leading entries with a
//                name, at most KY_DBG_MAX_CHANNELS; channel numbers at or
//                above it are disabled, so map[channel] is only read below it
//   enabledMask  the enabled bits, tested against the low 32 bits of masks
// Maps are installed and options parsed at start-up, before tracing threads
// run, so there is no lock; the words are accessed with relaxed atomics
// (plain moves on x86-64), which keeps the test of a disabled channel to a
// bound check and one AND while marking the accesses as deliberate.
struct ChannelState {
  const KyDbgMapEntry* map;
  uint32_t count;
  uint32_t enabledMask;
};

ChannelState gChannels = {kBuiltInMap, KY_DBG_BUILT_IN_CHANNELS, 0};

// An option item of this prefix (any case) removes a channel's bits.
constexpr char kRemovalPrefix[] = "no-";
constexpr std::size_t kRemovalPrefixLength = sizeof kRemovalPrefix - 1;

constexpr char kItemSeparator = ',';

// The text of a trace record: channel name, native thread id, message.
constexpr const char* kRecordFormat = "[%-4s] [%-5d] %s";

uint32_t LowBits(uint64_t mask) {
  return static_cast<uint32_t>(mask);
}

const KyDbgMapEntry* InstalledMap() {
  return kyrt::LoadRelaxed(&gChannels.map);
}

uint32_t ChannelCount() {
  return kyrt::LoadRelaxed(&gChannels.count);
}

uint32_t EnabledMask() {
  return kyrt::LoadRelaxed(&gChannels.enabledMask);
}

void StoreEnabledMask(uint32_t mask) {
  kyrt::StoreRelaxed(&gChannels.enabledMask, mask);
}

// The bound check and the AND. Tools test channels of their map, so the
// in-range path is laid out as the straight one.
inline bool ChannelIsEnabled(unsigned channel) {
  if (__builtin_expect(channel >= ChannelCount(), 0)) return false;
  return (LowBits(InstalledMap()[channel].mask) & EnabledMask()) != 0;
}

uint32_t CountNamedEntries(const KyDbgMapEntry* map) {
  uint32_t count = 0;
  while (count < KY_DBG_MAX_CHANNELS && map[count].name != nullptr) ++count;
  return count;
}

// Selecting bits: a mask of 0 means "nothing", which clears the enabled
// mask; any other mask adds its bits.
void SelectBits(uint32_t mask) {
  StoreEnabledMask(mask == 0 ? 0 : EnabledMask() | mask);
}

void RemoveBits(uint32_t mask) {
  StoreEnabledMask(EnabledMask() & ~mask);
}

bool IsHexadecimalText(const char* text) {
  return text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
}

// "0x" has been seen: the digits follow. Whatever comes after them is
// ignored.
bool ApplyHexadecimalMask(const char* digits) {
  unsigned value = 0;
  if (std::sscanf(digits, "%x", &value) != 1) return false;
  SelectBits(value);
  return true;
}

// True when the item's length characters equal the first length characters
// of name, case aside. A length of 0 therefore matches every name, and an
// item that is a prefix of a name matches it.
bool IsNamePrefix(const char* item, std::size_t length, const char* name) {
  return strncasecmp(item, name, length) == 0;
}

bool IsRemovalItem(const char* item, std::size_t length) {
  return length > kRemovalPrefixLength &&
         strncasecmp(item, kRemovalPrefix, kRemovalPrefixLength) == 0;
}

// Applies one option item of the given length (the item is not terminated
// there). Channels are tried in map order and the first that matches wins,
// so an abbreviation selects the first channel it abbreviates. Returns
// false when no channel matches.
bool ApplyItem(const char* item, std::size_t length) {
  const KyDbgMapEntry* map = InstalledMap();
  const uint32_t count = ChannelCount();
  const bool isRemoval = IsRemovalItem(item, length);
  for (uint32_t channel = 0; channel < count; ++channel) {
    const KyDbgMapEntry& entry = map[channel];
    if (IsNamePrefix(item, length, entry.name)) {
      SelectBits(LowBits(entry.mask));
      return true;
    }
    if (isRemoval &&
        IsNamePrefix(item + kRemovalPrefixLength, length - kRemovalPrefixLength, entry.name)) {
      RemoveBits(LowBits(entry.mask));
      return true;
    }
  }
  return false;
}

// Applies the comma-separated items in turn, stopping at the first unknown
// one. Empty items between commas are applied like any other (length 0);
// an empty rest after the last comma is no item.
bool ApplyItemList(const char* text) {
  const char* item = text;
  for (const char* separator = std::strchr(item, kItemSeparator); separator != nullptr;
       separator = std::strchr(item, kItemSeparator)) {
    if (!ApplyItem(item, static_cast<std::size_t>(separator - item))) return false;
    item = separator + 1;
  }
  return *item == '\0' || ApplyItem(item, std::strlen(item));
}

void FormatDumpText(char (&text)[KY_DBG_MESSAGE_BUFFER_SIZE], const char* format,
                    va_list arguments) {
  if (format == nullptr) {
    text[0] = '\0';
    return;
  }
  __KyVsnprintf(text, sizeof text, format, arguments);
}

}  // namespace

namespace kyrt {

const KyDbgMapEntry* BuiltInDebugDumpMap() {
  return kBuiltInMap;
}

const KyDbgMapEntry* CurrentDebugDumpMap() {
  return InstalledMap();
}

uint32_t DebugDumpChannelCount() {
  return ChannelCount();
}

uint32_t DebugDumpEnabledMask() {
  return EnabledMask();
}

void SetDebugDumpEnabledMask(uint32_t mask) {
  StoreEnabledMask(mask);
}

}  // namespace kyrt

extern "C" {

int __KyDbgRegisterDbgMap(const KyDbgMapEntry* map) noexcept {
  if (map == nullptr) return 0;
  kyrt::StoreRelaxed(&gChannels.map, map);
  kyrt::StoreRelaxed(&gChannels.count, CountNamedEntries(map));
  return 1;
}

int __KyParseDbgDumpOption(const char* text) noexcept {
  if (text == nullptr) return 0;
  if (text[0] == '0') return IsHexadecimalText(text) && ApplyHexadecimalMask(text + 2) ? 1 : 0;
  return ApplyItemList(text) ? 1 : 0;
}

int __KyIsDbgDumpEnabled(unsigned channel) noexcept {
  return ChannelIsEnabled(channel) ? 1 : 0;
}

void __KyDbgMessageDumpInternal(unsigned channel, const char* format, ...) noexcept {
  if (!ChannelIsEnabled(channel)) return;
  char text[KY_DBG_MESSAGE_BUFFER_SIZE];
  va_list arguments;
  va_start(arguments, format);
  FormatDumpText(text, format, arguments);
  va_end(arguments);
  __KyLogInternal(KY_LOG_INFO, KY_LOG_MSG_INTERNAL, 0, kRecordFormat, InstalledMap()[channel].name,
                  static_cast<int>(kyrt::CurrentNativeThreadId()), text);
}

}  // extern "C"
