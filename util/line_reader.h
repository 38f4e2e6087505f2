// Line-by-line reading of small system files into a fixed buffer.
//
// Each line is handed over without its new-line, cut to the buffer size; the
// rest of an over-long line is skipped, so that a long line never turns into
// several "lines" whose later parts would be misread as records of their own.
#ifndef KYRT_UTIL_LINE_READER_H
#define KYRT_UTIL_LINE_READER_H

#include <cstddef>
#include <cstdio>
#include <cstring>

namespace kyrt {

// Calls visit(line) for every line of stream until it returns false or the
// stream ends. BufferSize counts the terminating NUL, as fgets does.
template <std::size_t BufferSize, typename Visitor>
void ForEachLine(std::FILE* stream, Visitor&& visit) {
  char line[BufferSize];
  while (std::fgets(line, static_cast<int>(BufferSize), stream) != nullptr) {
    char* newline = std::strchr(line, '\n');
    if (newline != nullptr) {
      *newline = '\0';
    } else {
      int c;
      while ((c = std::fgetc(stream)) != EOF && c != '\n') {
      }
    }
    if (!visit(static_cast<const char*>(line))) return;
  }
}

}  // namespace kyrt

#endif  // KYRT_UTIL_LINE_READER_H
