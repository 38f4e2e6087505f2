// Writing one log record.
//
// A record of a message with typed arguments:
//   <msg id='7' [display='false'] source='kyrt'>
//     <type>NAME</type> <severity>...</severity> <timestamp>...</timestamp>
//     <arg name='...'>value</arg> ...      (one per declared argument name)
//   </msg>
// A text message carries its formatted text as a comment instead of the
// arguments. Comment messages, unknown ids and messages of unknown sources
// become a bare comment, without a record id.
#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "kyrt/files.h"
#include "kyrt/log.h"
#include "kyrt/runtime.h"
#include "log/log_internal.h"
#include "runtime/atomic_ops.h"

namespace {

constexpr std::size_t kTimestampSize = 64;
constexpr std::size_t kNumberSize = 256;

const char* const kSeverityNames[] = {"ERROR", "WARNING", "INFO"};

// A severity outside the three known ones is written as this rather than
// read out of the table's bounds.
constexpr const char* kUnknownSeverity = "UNKNOWN";

// The value of the next record's "id" attribute; changed only under the
// log file's lock.
uint32_t g_recordCounter = 1;

const char* SeverityName(int32_t severity) {
  if (severity < KY_LOG_ERROR || severity > KY_LOG_INFO) return kUnknownSeverity;
  return kSeverityNames[severity];
}

// The C library's asctime form of the local time, trailing white space
// removed (the first character always stays).
void FormatLocalTime(std::time_t now, char (&buffer)[kTimestampSize]) {
  std::tm local;
  buffer[0] = '\0';
  if (localtime_r(&now, &local) == nullptr || asctime_r(&local, buffer) == nullptr) return;
  std::size_t length = std::strlen(buffer);
  while (length > 1 && std::isspace(static_cast<unsigned char>(buffer[length - 1]))) {
    buffer[--length] = '\0';
  }
}

// The text changes once a second while formatting it (time zone lookup,
// asctime) costs a good part of a record, so the last second's text is
// kept. The cache is shared by all threads behind a try-only guard: a
// thread that finds it busy formats the time itself rather than wait.
struct TimestampCache {
  int32_t guard;
  std::time_t second;
  char text[kTimestampSize];
};

TimestampCache g_timestampCache = {0, -1, {}};

void FormatTimestamp(char (&buffer)[kTimestampSize]) {
  const std::time_t now = std::time(nullptr);
  if (__KyInterlockedCompareExchange(&g_timestampCache.guard, 1, 0) != 0) {
    FormatLocalTime(now, buffer);
    return;
  }
  if (g_timestampCache.second != now) {
    FormatLocalTime(now, g_timestampCache.text);
    g_timestampCache.second = now;
  }
  std::memcpy(buffer, g_timestampCache.text, sizeof buffer);
  kyrt::StoreRelease(&g_timestampCache.guard, 0);
}

bool IsKnownTag(uint32_t tag) {
  return tag == KY_LOG_ARG_INT || tag == KY_LOG_ARG_UNSIGNED || tag == KY_LOG_ARG_POINTER ||
         tag == KY_LOG_ARG_STRING;
}

// Reads the value that follows a known tag and writes its text.
void WriteTaggedValue(KyXmlFileHandle file, uint32_t tag, va_list& arguments) {
  char number[kNumberSize];
  switch (tag) {
    case KY_LOG_ARG_INT:
      __KySnprintf(number, sizeof number, "%d", va_arg(arguments, int));
      break;
    case KY_LOG_ARG_UNSIGNED:
      __KySnprintf(number, sizeof number, "%lu",
                   static_cast<unsigned long>(static_cast<uint32_t>(va_arg(arguments, uint64_t))));
      break;
    case KY_LOG_ARG_POINTER:
      __KySnprintf(number, sizeof number, "%p", va_arg(arguments, void*));
      break;
    default:  // KY_LOG_ARG_STRING
      __KyXMLWriteStringValue(file, va_arg(arguments, const char*));
      return;
  }
  __KyXMLWriteStringValue(file, number);
}

void WriteArgumentElement(KyXmlFileHandle file, const char* name, uint32_t tag,
                          va_list& arguments) {
  __KyXMLStartWritingOpeningTag(file, "arg");
  __KyXMLWriteStringAttribute(file, "name", name);
  __KyXMLFinishWritingOpeningTag(file);
  if (IsKnownTag(tag)) WriteTaggedValue(file, tag, arguments);
  __KyXMLAppendClosingTag(file, "arg");
}

// One "arg" element per declared name. An unknown tag leaves that argument
// and every later one empty, and nothing more is read from the list.
void WriteArguments(KyXmlFileHandle file, const char* const* names, va_list& arguments) {
  if (names == nullptr || names[0] == nullptr) return;
  uint32_t tag = va_arg(arguments, uint32_t);
  for (; *names != nullptr; ++names) {
    WriteArgumentElement(file, *names, tag, arguments);
    if (IsKnownTag(tag)) tag = va_arg(arguments, uint32_t);
  }
}

const char* TakeFormat(const char* knownFormat, va_list& arguments) {
  return knownFormat != nullptr ? knownFormat : va_arg(arguments, const char*);
}

bool IsWrittenAsBareComment(const kyrt::LogMessage* message) {
  return message == nullptr || message->name == nullptr ||
         kyrt::LoggerSourceName(message->source) == nullptr ||
         (message->flags & KY_LOG_MSG_FLAG_COMMENT) != 0;
}

void WriteMessageRecord(KyXmlFileHandle file, const kyrt::LogMessage& message, int32_t severity,
                        int32_t noDisplay, const char* timestamp, const char* knownFormat,
                        va_list& arguments) {
  __KyXMLStartWritingOpeningTag(file, "msg");
  __KyXMLWriteLongIntegerAttribute(file, "id", g_recordCounter++);
  if (noDisplay != 0 || (message.flags & KY_LOG_MSG_FLAG_NO_DISPLAY) != 0) {
    __KyXMLWriteStringAttribute(file, "display", "false");
  }
  __KyXMLWriteStringAttribute(file, "source", kyrt::LoggerSourceName(message.source));
  __KyXMLFinishWritingOpeningTag(file);
  __KyXMLWriteStringElement(file, "type", message.name);
  __KyXMLWriteStringElement(file, "severity", SeverityName(severity));
  __KyXMLWriteStringElement(file, "timestamp", timestamp);
  if ((message.flags & KY_LOG_MSG_FLAG_TEXT) != 0) {
    __KyXMLWriteCommentV(file, TakeFormat(knownFormat, arguments), arguments);
  } else {
    WriteArguments(file, message.argumentNames, arguments);
  }
  __KyXMLWriteClosingTag(file, "msg");
}

}  // namespace

namespace kyrt {

void WriteLogRecord(int32_t severity, int32_t messageId, int32_t noDisplay, const char* knownFormat,
                    va_list arguments) {
  char timestamp[kTimestampSize];
  FormatTimestamp(timestamp);  // outside the lock: records may be slightly out of time order
  KyXmlFileHandle file = LogFileCreatingDefault();
  if (file == nullptr) return;  // not started: records are dropped
  va_list rest;
  va_copy(rest, arguments);
  __KyXMLAcquireFile(file);
  const LogMessage* message = FindLogMessage(static_cast<uint32_t>(messageId));
  if (IsWrittenAsBareComment(message)) {
    __KyXMLWriteCommentV(file, TakeFormat(knownFormat, rest), rest);
  } else {
    WriteMessageRecord(file, *message, severity, noDisplay, timestamp, knownFormat, rest);
  }
  __KyXMLReleaseFile(file);
  va_end(rest);
}

}  // namespace kyrt
