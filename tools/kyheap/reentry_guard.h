// The per-thread marker "this thread is inside the tool".
//
// While it is set, the interposed allocation functions forward to the C
// library without recording anything: the runtime, the C++ library and the
// C library itself allocate on the tool's behalf, and those blocks are not
// the analysed program's. The depth lives in initial-exec TLS, which the
// loader sets up before any code of the preloaded library runs, so reading
// it never allocates.
#ifndef KYHEAP_REENTRY_GUARD_H
#define KYHEAP_REENTRY_GUARD_H

namespace kyheap {

extern __thread int t_toolDepth __attribute__((tls_model("initial-exec")));

inline bool InsideTool() {
  return t_toolDepth != 0;
}

// Marks the calling thread as inside the tool for the life of the object.
class ToolScope {
 public:
  ToolScope() { ++t_toolDepth; }
  ~ToolScope() { --t_toolDepth; }
  ToolScope(const ToolScope&) = delete;
  ToolScope& operator=(const ToolScope&) = delete;
};

}  // namespace kyheap

#endif  // KYHEAP_REENTRY_GUARD_H
