// The process-wide log: its file, its creation and its sources.
//
// State, all process-wide:
//   g_logFile      the open log (null until created); records are written
//                  whole under its file lock
//   g_created      set once a creation succeeded, never cleared
//   g_creation     spin word serialising creation
//   g_creator      the thread holding g_creation (0 when free)
//   g_sourceCount  source slots handed out, source 0 ("kyrt") included;
//                  changed by atomic increment and decrement only
//   g_sourceNames  the name each source's records carry
//   g_released     sources released by their owner: their slot keeps its
//                  pointer but the name is gone, so nothing reads it again
//   g_replaced     log files replaced by a later creation: they stay open
//                  (a tool may still hold their descriptors) and are kept
//                  here so that they remain owned for the life of the
//                  process
#include <cstdio>
#include <cstring>

#include "kyrt/log.h"
#include "kyrt/memory.h"
#include "kyrt/runtime.h"
#include "kyrt/xml_file.h"
#include "log/log_internal.h"
#include "runtime/atomic_ops.h"

namespace {

KyXmlFileHandle g_logFile = nullptr;
int32_t g_created = 0;
int32_t g_creation = 0;
KyThreadId g_creator = 0;
int32_t g_sourceCount = 1;
int32_t g_releasedCount = 1;  // releases plus one; kept for statistics only
const char* g_sourceNames[KY_LOG_MAX_SOURCES] = {KY_LOG_DEFAULT_SOURCE};
int32_t g_released[KY_LOG_MAX_SOURCES] = {};

constexpr int kMaxReplacedLogFiles = 16;
KyXmlFileHandle g_replaced[kMaxReplacedLogFiles] = {};
int g_replacedCount = 0;  // changed under the creation guard only

KyXmlFileHandle LogFile() {
  return kyrt::LoadRelaxed(&g_logFile);
}

bool RuntimeStarted() {
  return __KyGetStarted() != 0;
}

void TakeCreationGuard() {
  while (__KyInterlockedCompareExchange(&g_creation, 1, 0) != 0) __KyYield();
  kyrt::StoreRelaxed(&g_creator, __KyGetNativeThreadId());
}

void ReleaseCreationGuard() {
  kyrt::StoreRelaxed(&g_creator, KyThreadId{0});
  kyrt::StoreRelease(&g_creation, 0);
}

// Creating the file allocates; when that allocation runs out of memory, the
// out-of-memory report asks for the log from inside the creation. Waiting
// for the guard then would wait for ourselves forever.
bool CreatingOnThisThread() {
  const KyThreadId self = __KyGetNativeThreadId();
  return self != 0 && kyrt::LoadRelaxed(&g_creator) == self;
}

void WriteRootElement(KyXmlFileHandle file, const char* source) {
  __KyXMLAcquireFile(file);
  __KyXMLStartWritingOpeningTag(file, "log");
  __KyXMLWriteStringAttribute(file, "version", "2.0");
  __KyXMLWriteStringAttribute(file, "source", source);
  __KyXMLFinishWritingOpeningTag(file);
  __KyXMLReleaseFile(file);
}

// Creation proper; the caller holds the creation guard. The log takes the
// result of the file creation whatever it is, so a failed creation leaves
// no log behind.
void KeepReplacedLogFile(KyXmlFileHandle file) {
  if (file != nullptr && g_replacedCount < kMaxReplacedLogFiles) {
    g_replaced[g_replacedCount++] = file;
  }
}

int CreateLoggerGuarded(const char* source, const char* path, int append) {
  if (source == nullptr || path == nullptr || !RuntimeStarted()) return 0;
  KyXmlFileHandle file = __KyXMLCreateFile(path, append);
  KeepReplacedLogFile(LogFile());
  kyrt::StoreRelease(&g_logFile, file);
  if (file == nullptr) return 0;
  if (append == 0) WriteRootElement(file, source);
  kyrt::StoreRelaxed(&g_created, 1);
  return 1;
}

char* CopyName(const char* name) {
  const size_t size = std::strlen(name) + 1;
  char* copy = static_cast<char*>(__KyMallocInternal(size));
  if (copy != nullptr) std::memcpy(copy, name, size);
  return copy;
}

bool IsHandedOut(int32_t index) {
  return index > 0 && index < kyrt::LoadRelaxed(&g_sourceCount) && index < KY_LOG_MAX_SOURCES;
}

}  // namespace

namespace kyrt {

uint32_t LoggerSourceCount() {
  return static_cast<uint32_t>(LoadRelaxed(&g_sourceCount));
}

const char* LoggerSourceName(uint32_t source) {
  if (source >= LoggerSourceCount() || source >= KY_LOG_MAX_SOURCES) return nullptr;
  if (LoadRelaxed(&g_released[source]) != 0) return nullptr;
  return LoadRelaxed(&g_sourceNames[source]);
}

KyXmlFileHandle LogFileCreatingDefault() {
  KyXmlFileHandle file = __atomic_load_n(&g_logFile, __ATOMIC_ACQUIRE);
  if (file != nullptr) return file;
  // A record raised by the creation itself finds no log yet and is dropped.
  if (CreatingOnThisThread()) return nullptr;
  // Checked again under the guard: two threads logging their first record
  // at once must not both create (and truncate) the file.
  TakeCreationGuard();
  if (LogFile() == nullptr) CreateLoggerGuarded(KY_LOG_DEFAULT_SOURCE, KY_LOG_DEFAULT_FILE, 0);
  file = LogFile();
  ReleaseCreationGuard();
  return file;
}

}  // namespace kyrt

extern "C" {

int __KyCreateLogger(const char* source, const char* path, int append) noexcept {
  TakeCreationGuard();
  const int created = CreateLoggerGuarded(source, path, append);
  ReleaseCreationGuard();
  return created;
}

int __KyReopenLogger(void) noexcept {
  KyXmlFileHandle file = LogFile();
  if (!RuntimeStarted() || file == nullptr) return 0;
  __KyXMLAcquireFile(file);
  const int reopened = __KyXMLReopenFile(file);
  __KyXMLReleaseFile(file);
  return reopened;
}

int __KyIsLoggerInitialized(void) noexcept {
  return LogFile() != nullptr;
}

int32_t __KyGetLoggerHandle(const char* name) noexcept {
  if (name == nullptr || kyrt::LoadRelaxed(&g_created) == 0) return -1;
  const int32_t index = __KyInterlockedIncrement(&g_sourceCount) - 1;
  if (index >= KY_LOG_MAX_SOURCES) {
    __KyInterlockedDecrement(&g_sourceCount);
    return -1;
  }
  kyrt::StoreRelease(&g_sourceNames[index], static_cast<const char*>(CopyName(name)));
  return index;
}

int __KyReleaseLoggerHandle(int32_t index, const char* name) noexcept {
  if (LogFile() == nullptr || name == nullptr || !IsHandedOut(index)) return 0;
  const char* stored = kyrt::LoadRelaxed(&g_sourceNames[index]);
  if (stored == nullptr || kyrt::LoadRelaxed(&g_released[index]) != 0) return 0;
  if (std::strncmp(name, stored, std::strlen(stored)) != 0) return 0;
  kyrt::StoreRelaxed(&g_released[index], 1);
  __KyFreeInternal(const_cast<char*>(stored));
  __KyInterlockedIncrement(&g_releasedCount);
  return 1;
}

void __KyCloseLogger(void) noexcept {
  KyXmlFileHandle file = LogFile();
  if (file == nullptr) return;
  __KyXMLAcquireFile(file);
  __KyXMLWriteClosingTag(file, "log");
  __KyXMLReleaseFile(file);
}

int __KyLogToConsole(const char* format, ...) noexcept {
  va_list arguments;
  va_start(arguments, format);
  std::vprintf(format, arguments);
  va_end(arguments);
  std::putchar('\n');
  return 0;
}

void __KyLogInternal(int32_t severity, int32_t messageId, int32_t noDisplay, ...) noexcept {
  va_list arguments;
  va_start(arguments, noDisplay);
  kyrt::WriteLogRecord(severity, messageId, noDisplay, nullptr, arguments);
  va_end(arguments);
}

int __KyLogCommentInternal(const char* format, ...) noexcept {
  va_list arguments;
  va_start(arguments, format);
  kyrt::WriteLogRecord(KY_LOG_INFO, KY_LOG_MSG_COMMENT, 0, format, arguments);
  va_end(arguments);
  return 0;
}

}  // extern "C"
