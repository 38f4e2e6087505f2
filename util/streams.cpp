// Streams: opening above the standard descriptors, wide-path opening and the
// thin stream wrappers.
//
// An instrumented program may have closed descriptors 0 to 2. A stream the
// runtime opened on one of them would receive whatever the program later
// writes to "standard output", or be closed under the runtime's feet, so
// __KyFopen never hands out such a stream (see util/standard_descriptors.h).
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "kyrt/files.h"
#include "kyrt/strings.h"
#include "util/standard_descriptors.h"

namespace {

FILE* OpenRecordingErrno(const char* path, const char* mode, int* error) {
  FILE* stream = std::fopen(path, mode);
  if (error != nullptr) *error = errno;
  return stream;
}

// The first stream's descriptor is closed with close, not fclose: its record
// is abandoned, never flushed and never freed, so nothing it might hold
// reaches the file and no other stream can be disturbed through it.
FILE* ReopenStreamAboveStandardDescriptors(const char* path, const char* mode, int* error,
                                           FILE* low) {
  return kyrt::ReopenAboveStandardDescriptors<FILE*>(
      fileno(low), nullptr, [=] { return OpenRecordingErrno(path, mode, error); });
}

}  // namespace

extern "C" {

FILE* __KyFopen(const char* path, const char* mode, int* error) noexcept {
  FILE* stream = OpenRecordingErrno(path, mode, error);
  if (stream == nullptr || !kyrt::IsStandardDescriptor(fileno(stream))) return stream;
  return ReopenStreamAboveStandardDescriptors(path, mode, error, stream);
}

FILE* __KyWFopen(const wchar_t* path, const wchar_t* mode, int* error) noexcept {
  char* utf8Path = __KyAllocateAndConvertWstringToUtf8(path);
  char* utf8Mode = __KyAllocateAndConvertWstringToUtf8(mode);
  // When one conversion fails the other one's buffer is not released: this
  // path has always returned at once, and it is kept as it is.
  if (utf8Path == nullptr || utf8Mode == nullptr) return nullptr;
  FILE* stream = OpenRecordingErrno(utf8Path, utf8Mode, error);
  __KyFreeMbString(utf8Path);
  __KyFreeMbString(utf8Mode);
  return stream;
}

int __KyFclose(FILE* stream) noexcept {
  return std::fclose(stream);
}

char* __KyFgets(char* buffer, int size, FILE* stream) noexcept {
  return std::fgets(buffer, size, stream);
}

long __KyFtell(FILE* stream) noexcept {
  return std::ftell(stream);
}

int __KyFflush(FILE* stream) noexcept {
  return std::fflush(stream);
}

size_t __KyFread(void* buffer, size_t size, size_t count, FILE* stream) noexcept {
  return std::fread(buffer, size, count, stream);
}

size_t __KyFwrite(const void* buffer, size_t size, size_t count, FILE* stream) noexcept {
  return std::fwrite(buffer, size, count, stream);
}

int __KyFseek(FILE* stream, long offset, int whence) noexcept {
  return std::fseek(stream, offset, whence);
}

}  // extern "C"
