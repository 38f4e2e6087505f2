// Internal seam of kyrt::GetExecutableFilePath.
//
// The executable's path is the target of the link /proc/<pid>/exe. Tests
// point the lookup at links of their own (to see sanitising, a missing link
// and the longest target) by replacing the printf format that turns the
// process id into the link's path. Internal (hidden visibility): tests reach
// it by linking the static archive.
#ifndef KYRT_UTIL_EXECUTABLE_PATH_H
#define KYRT_UTIL_EXECUTABLE_PATH_H

namespace kyrt {

// format takes one %d (the process id); null restores "/proc/%d/exe". The
// string must outlive its use. Not synchronised.
void SetExecutableLinkFormatForTesting(const char* format);

}  // namespace kyrt

#endif  // KYRT_UTIL_EXECUTABLE_PATH_H
