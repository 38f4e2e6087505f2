// Streams: opening above the standard descriptors, wide-path opening and the
// thin stream wrappers.
//
// An instrumented program may have closed descriptors 0 to 2. A stream the
// runtime opened on one of them would receive whatever the program later
// writes to "standard output", or be closed under the runtime's feet, so
// __KyFopen never hands out such a stream: when fopen lands low, the low
// descriptors are filled with duplicates until one lands above 2, the file
// is opened again (now necessarily above 2) and the fillers are closed.
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "kyrt/files.h"
#include "kyrt/strings.h"

namespace {

constexpr int kHighestStandardDescriptor = 2;

// Duplicates that can land on standard descriptors: every one of them except
// the descriptor being duplicated, since duplicates are kept open.
constexpr int kMaxLowDuplicates = kHighestStandardDescriptor;

bool IsStandardDescriptor(int fd) {
  return fd <= kHighestStandardDescriptor;
}

FILE* OpenRecordingErrno(const char* path, const char* mode, int* error) {
  FILE* stream = std::fopen(path, mode);
  if (error != nullptr) *error = errno;
  return stream;
}

void CloseLatestFirst(const int* descriptors, int count) {
  while (count > 0) close(descriptors[--count]);
}

// low is the descriptor of a stream just opened on path. Returns a stream on
// path above the standard descriptors, or null. Either way low is closed
// with close, not fclose: the first stream's record is abandoned, never
// flushed and never freed, so nothing it might hold reaches the file and no
// other stream can be disturbed through it.
FILE* ReopenAboveStandardDescriptors(const char* path, const char* mode, int* error, int low) {
  int duplicates[kMaxLowDuplicates];
  int count = 0;
  FILE* reopened = nullptr;
  for (;;) {
    const int duplicate = dup(low);
    if (duplicate < 0) break;
    if (!IsStandardDescriptor(duplicate)) {
      // The standard descriptors are all taken now: the next open lands
      // where this duplicate was, or higher.
      close(duplicate);
      reopened = OpenRecordingErrno(path, mode, error);
      break;
    }
    if (count == kMaxLowDuplicates) {
      // Only another thread closing standard descriptors meanwhile can get
      // here; give up as if dup had failed rather than overrun the list.
      close(duplicate);
      break;
    }
    duplicates[count++] = duplicate;
  }
  CloseLatestFirst(duplicates, count);
  close(low);
  return reopened;
}

}  // namespace

extern "C" {

FILE* __KyFopen(const char* path, const char* mode, int* error) noexcept {
  FILE* stream = OpenRecordingErrno(path, mode, error);
  if (stream == nullptr || !IsStandardDescriptor(fileno(stream))) return stream;
  return ReopenAboveStandardDescriptors(path, mode, error, fileno(stream));
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
