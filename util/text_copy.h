// Copying a stretch of text into a new string from the accounted allocator.
#ifndef KYRT_UTIL_TEXT_COPY_H
#define KYRT_UTIL_TEXT_COPY_H

#include <cstddef>

namespace kyrt {

// A NUL-terminated copy of the length bytes at text, allocated with
// __KyMalloc (category 0). The caller releases it with __KyFree.
char* CopyOfText(const char* text, std::size_t length);

}  // namespace kyrt

#endif  // KYRT_UTIL_TEXT_COPY_H
