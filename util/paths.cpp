// Path normalisation and the last component of a path, on C strings and on
// standard strings.
//
// Two readings of "base name" coexist on purpose. The C functions never take
// a "/" in the first position as a separator, so "/abc" is its own base name;
// the kyrt:: functions split at any "/". Callers rely on each as it is.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "kyrt/files.h"
#include "util/executable_path.h"
#include "util/text_copy.h"

namespace {

constexpr char kSeparator = '/';

// The link naming the running executable, by process id.
constexpr const char* kExecutableLinkFormat = "/proc/%d/exe";
constexpr std::size_t kExecutableLinkPathSize = 128;
// readlink is given this many bytes of a buffer one byte larger; a result
// that fills them all may have been cut and is not trusted.
constexpr std::size_t kLinkTargetCapacity = 4096;

const char* g_executableLinkFormat = kExecutableLinkFormat;

// The index just past the last separator of path[0 .. length), not looking
// at position 0; 0 when there is none. Length is the type the caller measures
// lengths in.
template <typename Length>
Length BaseNameStart(const char* path, Length length) {
  for (Length i = length - 1; i >= 1; --i) {
    if (path[i] == kSeparator) return i + 1;
  }
  return 0;
}

template <typename Length>
char* CopyBaseName(const char* path) {
  if (path == nullptr) return nullptr;
  const Length length = static_cast<Length>(std::strlen(path));
  if (length == 0) return nullptr;
  const Length start = BaseNameStart(path, length);
  return kyrt::CopyOfText(path + start, length - start);
}

// Runs a function building a string; an exception (an allocation refused)
// turns into an empty result, so that none leaves the library.
template <typename Build>
std::string EmptyOnFailure(Build build) noexcept {
  try {
    return build();
  } catch (...) {
    return std::string();
  }
}

}  // namespace

extern "C" {

void __KySanitizePath(char* path) noexcept {
  if (path == nullptr) return;
  char* write = path;
  for (const char* read = path; *read != '\0'; ++read) {
    const bool repeatsSeparator = *read == kSeparator && write != path && write[-1] == kSeparator;
    if (!repeatsSeparator) *write++ = *read;
  }
  *write = '\0';
}

char* __KyGetBaseName(const char* path) noexcept {
  return CopyBaseName<size_t>(path);
}

// The same with the length measured in 32 bits, as the callers of this
// variant count lengths.
char* __KyGetSCBaseName(const char* path) noexcept {
  return CopyBaseName<uint32_t>(path);
}

}  // extern "C"

namespace kyrt {

std::string SanitizePath(const std::string& path) noexcept {
  return EmptyOnFailure([&path] {
    std::string copy(path.c_str());  // up to the first NUL
    __KySanitizePath(copy.data());
    copy.resize(std::strlen(copy.c_str()));
    return copy;
  });
}

std::string GetFolderName(const std::string& path) noexcept {
  return EmptyOnFailure([&path] {
    // A path whose only "/" is its first character has nothing before it.
    const std::size_t separator = path.rfind(kSeparator);
    if (separator == std::string::npos) return std::string();
    return path.substr(0, separator);
  });
}

std::string GetBaseName(const std::string& path) noexcept {
  return EmptyOnFailure([&path] {
    const std::size_t separator = path.rfind(kSeparator);
    if (separator == std::string::npos) return path;
    return path.substr(separator + 1);
  });
}

std::string GetExecutableFilePath() noexcept {
  return EmptyOnFailure([] {
    char linkPath[kExecutableLinkPathSize];
    std::snprintf(linkPath, sizeof linkPath, g_executableLinkFormat, static_cast<int>(getpid()));
    std::string target(kLinkTargetCapacity + 1, '\0');
    const ssize_t count = readlink(linkPath, target.data(), kLinkTargetCapacity);
    if (count < 1 || static_cast<std::size_t>(count) == kLinkTargetCapacity) return std::string();
    target.resize(static_cast<std::size_t>(count));
    return SanitizePath(target);
  });
}

void SetExecutableLinkFormatForTesting(const char* format) {
  g_executableLinkFormat = format != nullptr ? format : kExecutableLinkFormat;
}

}  // namespace kyrt
