// The debug dump option text as it comes from a tool's command line, parsed
// against the built-in map and tool maps of 0 to 40 entries (with and
// without a terminating entry). Every parse is checked against a plain model
// of the rules: same result, same enabled mask, same answer of the enabled
// test for every channel; and a full 32-entry map must never be read past
// its end (AddressSanitizer).
//
// Input: byte 0 picks the map (0: built-in; n: a tool map of n - 1
// entries), bytes 1-4 the enabled mask to start from, then one byte per
// tool map entry (name and mask from small pools), then the option text.
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kyrt/debug_dump.h"
#include "log/debug_dump_state.h"

namespace {

constexpr unsigned kLargestToolMap = 40;
constexpr unsigned kChannelsTested = 48;

const char* const kNamePool[] = {
    "NONE", "API", "A",      "api",    "AP",  "DOTNET", "DOTNET_GC", "no-x",
    "no",   "x",   "",       "KYCORE", "mem", "Mem-",   "a,b",       "ALL",
    "n",    "no-", "NO-API", "zca",    "Z",   "0x1",    "\xC3\xA9",  "longer_channel_name_here",
};
constexpr unsigned kNamePoolSize = sizeof kNamePool / sizeof kNamePool[0];

const uint64_t kMaskPool[] = {0x0,      0x1,        0x80,           0x1FF,
                              0x7FFFFF, 0x80000000, 0x100000000ull, 0xFFFFFFFF00000004ull};
constexpr unsigned kMaskPoolSize = sizeof kMaskPool / sizeof kMaskPool[0];

// ---------------------------------------------------------------------------
// The model: the rules written out with std::string, map and mask passed in.

struct Model {
  const KyDbgMapEntry* map;
  uint32_t count;
  uint32_t mask;
};

bool SameIgnoringCase(const std::string& text, const char* name) {
  if (std::strlen(name) < text.size()) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(text[i])) !=
        std::tolower(static_cast<unsigned char>(name[i]))) {
      return false;
    }
  }
  return true;
}

void Select(Model& model, uint32_t bits) {
  model.mask = bits == 0 ? 0 : model.mask | bits;
}

bool ModelItem(Model& model, const std::string& item) {
  const bool removal = item.size() > 3 && SameIgnoringCase(item.substr(0, 3), "no-");
  for (uint32_t channel = 0; channel < model.count; ++channel) {
    const KyDbgMapEntry& entry = model.map[channel];
    if (SameIgnoringCase(item, entry.name)) {
      Select(model, static_cast<uint32_t>(entry.mask));
      return true;
    }
    if (removal && SameIgnoringCase(item.substr(3), entry.name)) {
      model.mask &= ~static_cast<uint32_t>(entry.mask);
      return true;
    }
  }
  return false;
}

int ModelParse(Model& model, const std::string& text) {
  if (!text.empty() && text[0] == '0') {
    if (text.size() < 2 || (text[1] != 'x' && text[1] != 'X')) return 0;
    unsigned value = 0;
    if (std::sscanf(text.c_str() + 2, "%x", &value) != 1) return 0;
    Select(model, value);
    return 1;
  }
  size_t start = 0;
  for (size_t comma = text.find(','); comma != std::string::npos; comma = text.find(',', start)) {
    if (!ModelItem(model, text.substr(start, comma - start))) return 0;
    start = comma + 1;
  }
  return start == text.size() || ModelItem(model, text.substr(start)) ? 1 : 0;
}

uint32_t ModelCount(const KyDbgMapEntry* map, size_t entries) {
  uint32_t count = 0;
  while (count < KY_DBG_MAX_CHANNELS && count < entries && map[count].name != nullptr) ++count;
  return count;
}

bool ModelEnabled(const Model& model, unsigned channel) {
  return channel < model.count &&
         (static_cast<uint32_t>(model.map[channel].mask) & model.mask) != 0;
}

void Check(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 5) return 0;
  const unsigned selector = data[0] % (kLargestToolMap + 2);
  uint32_t startMask;
  std::memcpy(&startMask, data + 1, sizeof startMask);
  size_t at = 5;

  // A tool map of exactly the chosen size, terminated only when shorter
  // than the cap: a full map is read to its 32nd entry and no further.
  std::vector<KyDbgMapEntry> toolMap;
  const KyDbgMapEntry* map = kyrt::BuiltInDebugDumpMap();
  size_t entries = KY_DBG_BUILT_IN_CHANNELS;
  if (selector != 0) {
    const unsigned named = selector - 1;
    for (unsigned i = 0; i < named && at < size; ++i, ++at) {
      const uint8_t choice = data[at];
      const char* name = choice == 0xFF ? nullptr : kNamePool[choice % kNamePoolSize];
      toolMap.push_back({kMaskPool[(choice / kNamePoolSize) % kMaskPoolSize], name});
    }
    if (toolMap.size() < KY_DBG_MAX_CHANNELS) toolMap.push_back({0, nullptr});
    toolMap.shrink_to_fit();
    map = toolMap.data();
    entries = toolMap.size();
  }
  Check(__KyDbgRegisterDbgMap(map) == 1);

  const std::string text(reinterpret_cast<const char*>(data + at), size - at);
  Model model{map, ModelCount(map, entries), startMask};
  Check(kyrt::DebugDumpChannelCount() == model.count);

  kyrt::SetDebugDumpEnabledMask(startMask);
  const int result = __KyParseDbgDumpOption(text.c_str());
  // The parser sees the text up to its first NUL byte, as a C string.
  const int expected = ModelParse(model, std::string(text.c_str()));
  Check(result == expected);
  Check(kyrt::DebugDumpEnabledMask() == model.mask);
  for (unsigned channel = 0; channel < kChannelsTested; ++channel) {
    Check(__KyIsDbgDumpEnabled(channel) == (ModelEnabled(model, channel) ? 1 : 0));
  }
  // Before start-up a dump formats (when enabled) and is then dropped.
  __KyDbgMessageDumpInternal(data[0] % kChannelsTested, "%s", text.c_str());

  // The map must not outlive this input: go back to the built-in one.
  Check(__KyDbgRegisterDbgMap(kyrt::BuiltInDebugDumpMap()) == 1);
  return 0;
}
