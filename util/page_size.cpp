// The native page size, asked of the system once per process.
//
// The cache is written without a lock: racing first callers compute and
// store the same value.
#include "util/page_size.h"

#include <unistd.h>

#include "kyrt/files.h"
#include "runtime/atomic_ops.h"

namespace {

// Used when the system does not answer.
constexpr uint32_t kFallbackPageSize = 4096;
constexpr long kQueryFailed = -1;

long SystemPageSize() {
  return sysconf(_SC_PAGESIZE);
}

kyrt::PageSizeQuery g_pageSizeQuery = SystemPageSize;
uint32_t g_pageSize = 0;  // 0 until first asked

}  // namespace

namespace kyrt {

void SetPageSizeQueryForTesting(PageSizeQuery query) {
  g_pageSizeQuery = query != nullptr ? query : SystemPageSize;
}

}  // namespace kyrt

extern "C" {

uint32_t __KyGetNativePageSize(void) noexcept {
  const uint32_t cached = kyrt::LoadRelaxed(&g_pageSize);
  if (cached != 0) return cached;
  const long reported = g_pageSizeQuery();
  const uint32_t pageSize =
      reported == kQueryFailed ? kFallbackPageSize : static_cast<uint32_t>(reported);
  kyrt::StoreRelaxed(&g_pageSize, pageSize);
  return pageSize;
}

}  // extern "C"
