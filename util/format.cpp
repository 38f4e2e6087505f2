// Formatted output: the C library's printf family behind the runtime's own
// names, so that tools format through the library rather than through the
// analysed program's C library state.
#include <cstdarg>
#include <cstdio>

#include "kyrt/files.h"

extern "C" {

int __KyFprintf(FILE* stream, const char* format, ...) noexcept {
  va_list arguments;
  va_start(arguments, format);
  const int written = std::vfprintf(stream, format, arguments);
  va_end(arguments);
  return written;
}

int __KyVsnprintf(char* buffer, size_t size, const char* format, va_list arguments) noexcept {
  return std::vsnprintf(buffer, size, format, arguments);
}

int __KySnprintf(char* buffer, size_t size, const char* format, ...) noexcept {
  va_list arguments;
  va_start(arguments, format);
  const int written = __KyVsnprintf(buffer, size, format, arguments);
  va_end(arguments);
  return written;
}

int __KySCnprintf(char* buffer, size_t size, const char* format, ...) noexcept {
  va_list arguments;
  va_start(arguments, format);
  const int written = std::vsnprintf(buffer, size, format, arguments);
  va_end(arguments);
  return written;
}

}  // extern "C"
