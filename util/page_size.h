// Internal seam of the page size query.
//
// __KyGetNativePageSize asks the system once and caches the answer; tests
// replace the question to see the fallback taken when the system gives no
// answer. Internal (hidden visibility): tests reach it by linking the static
// archive.
#ifndef KYRT_UTIL_PAGE_SIZE_H
#define KYRT_UTIL_PAGE_SIZE_H

namespace kyrt {

// Returns the page size in bytes, or -1 when the system cannot say.
using PageSizeQuery = long (*)();

// Replaces the query; null restores sysconf(_SC_PAGESIZE). The cache is not
// reset: call it before the first __KyGetNativePageSize of the process.
void SetPageSizeQueryForTesting(PageSizeQuery query);

}  // namespace kyrt

#endif  // KYRT_UTIL_PAGE_SIZE_H
