// The message registry: 128 message definitions, ids handed out by atomic
// increment of the count. Entries 0 ("COMMENT") and 1 ("INTERNAL") are
// built in; entries are filled after their id is taken and never change or
// go away afterwards, so a message must not be logged before its
// registration has returned.
#include <cstring>

#include "kyrt/log.h"
#include "kyrt/memory.h"
#include "kyrt/runtime.h"
#include "log/log_internal.h"
#include "runtime/atomic_ops.h"

extern "C" {
KYRT_API int32_t KYLOG_MSG_ABNORMAL_TERMINATE = 0;
KYRT_API int32_t KYLOG_MSG_OUT_OF_MEMORY = 0;
KYRT_API int32_t KYLOG_MSG_COLLECT_MEMORY = 0;
KYRT_API int32_t KYLOG_MSG_MEMORY_IS_TIGHT = 0;
KYRT_API int32_t KYLOG_MSG_FREEING_RESERVES = 0;
KYRT_API int32_t KYLOG_MSG_BAD_OPTION = 0;
KYRT_API int32_t KYLOG_MSG_BAD_ARGUMENT = 0;
KYRT_API int32_t KYLOG_MSG_FAIL_CONVERT_FILENAME = 0;
KYRT_API int32_t KYLOG_MSG_FAIL_OPEN_FILE = 0;
KYRT_API int32_t KYLOG_MSG_FAIL_SEEK_FILE = 0;
KYRT_API int32_t KYLOG_MSG_FAIL_READ_FILE = 0;
KYRT_API int32_t KYLOG_MSG_FAIL_READ_FILE_VERBOSE = 0;
}

namespace {

constexpr int32_t kBuiltInMessages = 2;

const char* const kNoArguments[] = {nullptr};

kyrt::LogMessage g_messages[KY_LOG_MAX_MESSAGES] = {
    {"COMMENT", kNoArguments, KY_LOG_MSG_FLAG_COMMENT | KY_LOG_MSG_FLAG_NO_DISPLAY, 0},
    {"INTERNAL", kNoArguments, KY_LOG_MSG_FLAG_TEXT, 0},
};
int32_t g_messageCount = kBuiltInMessages;

// The runtime's own messages, registered at start-up in this order.
const char* const kNumBytes[] = {"num_bytes", nullptr};
const char* const kOption[] = {"option", nullptr};
const char* const kFilename[] = {"filename", nullptr};
const char* const kFilenameAndError[] = {"filename", "srerror", nullptr};

struct RuntimeMessage {
  int32_t* id;
  KyLogMessageDefinition definition;
};

const RuntimeMessage kRuntimeMessages[] = {
    {&KYLOG_MSG_ABNORMAL_TERMINATE, {"ABNORMAL_TERMINATE", nullptr, 0, 0}},
    {&KYLOG_MSG_OUT_OF_MEMORY, {"OUT_OF_MEMORY", nullptr, 0, 0}},
    {&KYLOG_MSG_COLLECT_MEMORY, {"COLLECT_MEMORY", nullptr, 0, 0}},
    {&KYLOG_MSG_MEMORY_IS_TIGHT, {"MEMORY_IS_TIGHT", nullptr, 0, 0}},
    {&KYLOG_MSG_FREEING_RESERVES, {"FREEING_RESERVES", kNumBytes, KY_LOG_MSG_FLAG_NO_DISPLAY, 0}},
    {&KYLOG_MSG_BAD_OPTION, {"BAD_OPTION", kOption, 0, 0}},
    {&KYLOG_MSG_BAD_ARGUMENT, {"BAD_ARGUMENT", kOption, 0, 0}},
    {&KYLOG_MSG_FAIL_CONVERT_FILENAME, {"FAIL_CONVERT_FILENAME", nullptr, 0, 0}},
    {&KYLOG_MSG_FAIL_OPEN_FILE, {"FAIL_OPEN_FILE", kFilename, 0, 0}},
    {&KYLOG_MSG_FAIL_SEEK_FILE, {"FAIL_SEEK_FILE", kFilename, 0, 0}},
    {&KYLOG_MSG_FAIL_READ_FILE, {"FAIL_READ_FILE", kFilename, 0, 0}},
    {&KYLOG_MSG_FAIL_READ_FILE_VERBOSE, {"FAIL_READ_FILE_VERBOSE", kFilenameAndError, 0, 0}},
};
constexpr int kRuntimeMessageCount = sizeof kRuntimeMessages / sizeof kRuntimeMessages[0];

char* CopyText(const char* text) {
  if (text == nullptr) return nullptr;
  const size_t size = std::strlen(text) + 1;
  char* copy = static_cast<char*>(__KyMallocInternal(size));
  if (copy != nullptr) std::memcpy(copy, text, size);
  return copy;
}

// A private copy of a null-terminated list of names; an absent list becomes
// a list holding only the terminating null.
const char* const* CopyArgumentNames(const char* const* names) {
  size_t count = 0;
  while (names != nullptr && names[count] != nullptr) ++count;
  if (count == 0) return kNoArguments;
  const char** copy = static_cast<const char**>(__KyMallocInternal((count + 1) * sizeof *copy));
  if (copy == nullptr) return kNoArguments;
  for (size_t i = 0; i < count; ++i) copy[i] = CopyText(names[i]);
  copy[count] = nullptr;
  return copy;
}

bool IsValidDefinition(const KyLogMessageDefinition* definition) {
  return definition != nullptr && definition->source < kyrt::LoggerSourceCount();
}

}  // namespace

namespace kyrt {

const LogMessage* FindLogMessage(uint32_t id) {
  if (id >= static_cast<uint32_t>(LoadRelaxed(&g_messageCount)) || id >= KY_LOG_MAX_MESSAGES) {
    return nullptr;
  }
  return &g_messages[id];
}

}  // namespace kyrt

extern "C" {

int32_t __KyRegisterLogMessage2(const KyLogMessageDefinition* definition) noexcept {
  if (!IsValidDefinition(definition)) {
    __KyLogInternal(KY_LOG_ERROR, KY_LOG_MSG_INTERNAL, 0,
                    "A valid message must be specified to register it with KYRT");
    return KY_LOG_MSG_INVALID;
  }
  const int32_t id = __KyInterlockedIncrement(&g_messageCount) - 1;
  if (id >= KY_LOG_MAX_MESSAGES) {
    __KyInterlockedDecrement(&g_messageCount);
    return KY_LOG_MSG_INVALID;
  }
  kyrt::LogMessage& entry = g_messages[id];
  entry.name = CopyText(definition->name);
  entry.argumentNames = CopyArgumentNames(definition->argumentNames);
  entry.flags = definition->flags;
  entry.source = definition->source;
  return id;
}

int32_t __KyRegisterLogMessage(const KyLogMessageDefinition* definition) noexcept {
  return __KyRegisterLogMessage2(definition);
}

int __KyRegisterInternalKYRTLogMessages(void) noexcept {
  int32_t ids[kRuntimeMessageCount];
  for (int i = 0; i < kRuntimeMessageCount; ++i) {
    ids[i] = __KyRegisterLogMessage2(&kRuntimeMessages[i].definition);
    if (ids[i] == KY_LOG_MSG_INVALID) return 0;  // publish none
  }
  for (int i = 0; i < kRuntimeMessageCount; ++i) {
    kyrt::StoreRelaxed(kRuntimeMessages[i].id, ids[i]);
  }
  return 1;
}

}  // extern "C"
