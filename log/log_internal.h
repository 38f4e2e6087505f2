// Internal interfaces between the logger, the message registry and the
// fatal-exit path.
#ifndef KYRT_LOG_LOG_INTERNAL_H
#define KYRT_LOG_LOG_INTERNAL_H

#include <cstdarg>
#include <cstdint>

#include "kyrt/xml_file.h"

namespace kyrt {

// A registered message. The registry owns name and argumentNames (allocated
// with the C library's allocator, never freed); argumentNames always ends
// with a null entry.
struct LogMessage {
  const char* name;
  const char* const* argumentNames;
  uint32_t flags;
  uint32_t source;
};

// The message with this id, or null when no such message has been
// registered.
const LogMessage* FindLogMessage(uint32_t id);

// Number of logger sources handed out, source 0 included.
uint32_t LoggerSourceCount();

// The name a record of this source carries, or null for a source that was
// never handed out or has been released.
const char* LoggerSourceName(uint32_t source);

// The open log, creating the default "kylog.log" when there is none yet.
// Null when the runtime is not started.
KyXmlFileHandle LogFileCreatingDefault();

// Writes one record (see __KyLogInternal). The variable part starts with
// `first`: when knownFormat is not null it is `first` and `arguments` holds
// what follows it; otherwise `first` is the next item of `arguments`.
void WriteLogRecord(int32_t severity, int32_t messageId, int32_t noDisplay, const char* knownFormat,
                    va_list arguments);

}  // namespace kyrt

#endif  // KYRT_LOG_LOG_INTERNAL_H
