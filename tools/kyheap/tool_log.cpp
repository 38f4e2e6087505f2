#include "tool_log.h"

#include <pthread.h>

#include <cstdarg>
#include <cstdio>

#include "kyrt/debug_dump.h"
#include "kyrt/log.h"
#include "kyrt/options.h"
#include "mutex_hold.h"

namespace kyheap {
namespace {

constexpr std::size_t kRecordSize = 2048;
constexpr const char* kSourceName = "kyheap";

pthread_mutex_t g_logMutex = PTHREAD_MUTEX_INITIALIZER;
int32_t g_messageId = KY_LOG_MSG_INTERNAL;

const KyDbgMapEntry kChannelMap[] = {
    {0x00, "none"},    {0x01, "alloc"},  {0x02, "free"}, {0x04, "site"},
    {0x08, "command"}, {0x10, "report"}, {0x1F, "all"},  {0, nullptr},
};

void LogFormatted(int32_t severity, const char* format, va_list arguments) {
  char text[kRecordSize];
  std::vsnprintf(text, sizeof text, format, arguments);
  MutexHold hold(&g_logMutex);
  __KyLogInternal(severity, g_messageId, 0, "%s", text);
}

}  // namespace

bool OpenToolLog(const std::string& path, bool append, const std::string& debugChannels) {
  MutexHold hold(&g_logMutex);
  __KyCreateLogger(kSourceName, path.c_str(), append ? 1 : 0);
  static const KyLogMessageDefinition kToolMessage{"KYHEAP", nullptr, KY_LOG_MSG_FLAG_TEXT, 0};
  const int32_t id = __KyRegisterLogMessage2(&kToolMessage);
  if (id != KY_LOG_MSG_INVALID) g_messageId = id;
  __KyDbgRegisterDbgMap(kChannelMap);
  return __KyParseDbgDumpOption(debugChannels.c_str()) == 1;
}

void LogInfo(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  LogFormatted(KY_LOG_INFO, format, arguments);
  va_end(arguments);
}

void LogWarning(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  LogFormatted(KY_LOG_WARNING, format, arguments);
  va_end(arguments);
}

bool DebugEnabled(DebugChannel channel) {
  return __KyIsDbgDumpEnabled(channel) != 0;
}

void DebugDump(DebugChannel channel, const char* format, ...) {
  if (!DebugEnabled(channel)) return;
  char text[kRecordSize];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  MutexHold hold(&g_logMutex);
  __KyDbgMessageDumpInternal(channel, "%s", text);
}

void LogOptionValues(uint32_t parser) {
  MutexHold hold(&g_logMutex);
  __KyLogToolOptionValues(parser);
}

void CloseToolLog() {
  MutexHold hold(&g_logMutex);
  __KyCloseLogger();
}

void LockLogForFork() {
  pthread_mutex_lock(&g_logMutex);
}

void UnlockLogInParent() {
  pthread_mutex_unlock(&g_logMutex);
}

void ReinitialiseLogInChild() {
  pthread_mutex_init(&g_logMutex, nullptr);
}

}  // namespace kyheap
