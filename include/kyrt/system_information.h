/*
 * KYRT - support runtime for analysis tools.
 *
 * kyrt::SystemInformation: total and free memory from /proc/meminfo and the
 * page size, as a small value object. C++ only.
 */
#ifndef KYRT_SYSTEM_INFORMATION_H
#define KYRT_SYSTEM_INFORMATION_H

#include "kyrt/export.h"

#ifdef __cplusplus

namespace kyrt {

/* A reading of the machine's memory figures. Construction takes a first
 * reading; Update() takes a new one. Not synchronised: give each thread its
 * own object or serialise calls. Layout: four 64-bit words, in the order
 * total memory, free memory, page size, value word. */
class KYRT_API SystemInformation {
 public:
  /* Names a metric for getValue(). getValue() does not look at it: it
   * returns the object's value word whatever the metric. */
  enum MetricType { kValueWord = 0 };

  /* Sets total and free memory to 0 and the page size from sysconf, then
   * calls Update(). The value word is not written. */
  SystemInformation() noexcept;

  /* Nothing to release. */
  ~SystemInformation() noexcept;

  /* Re-reads "MemTotal" and "MemFree" (kilobytes, as /proc/meminfo gives
   * them). When the file cannot be opened the figures keep their values; a
   * file without a MemFree line leaves free memory as it was. */
  void Update() noexcept;

  /* Returns the value word (the fourth word of the object), which no
   * operation of this class writes; the metric is not looked at. */
  unsigned long getValue(const MetricType& metric) const noexcept;

  /* bytes rounded up to a whole number of pages (0 stays 0). */
  unsigned long getPageSizeAlignedValue(unsigned long bytes) const noexcept;

  /* Total memory in kilobytes from the last reading (0 if never read). */
  unsigned long totalMemory() const noexcept { return totalMemory_; }

  /* Free memory in kilobytes from the last reading (0 if never read). */
  unsigned long freeMemory() const noexcept { return freeMemory_; }

  /* The page size in bytes, as sysconf reported it. */
  long pageSize() const noexcept { return pageSize_; }

 private:
  unsigned long totalMemory_;
  unsigned long freeMemory_;
  long pageSize_;
  unsigned long valueWord_;
};

}  // namespace kyrt

#endif /* __cplusplus */

#endif /* KYRT_SYSTEM_INFORMATION_H */
