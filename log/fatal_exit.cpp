// Call stacks in the log, the exit handler and the fatal exits.
#include <cstdio>
#include <cstdlib>

#include "kyrt/files.h"
#include "kyrt/log.h"
#include "kyrt/memory.h"
#include "kyrt/modules.h"
#include "kyrt/runtime.h"
#include "log/log_internal.h"
#include "runtime/atomic_ops.h"

namespace {

constexpr size_t kInitialLineSize = 1024;
// Room for a full frame-pointer walk plus the caller's own pc.
constexpr int kCurrentCallstackCapacity = 27;
constexpr const char* kCurrentCallstackName = "trelltool";

KyExitHandlerProc g_exitHandler = nullptr;

// Once the runtime has started, call-stack lines go to the log as comments;
// before, to standard output.
void EmitLine(const char* line) {
  if (__KyGetStarted() != 0) {
    __KyLogCommentInternal("%s", line);
  } else {
    __KyLogToConsole("%s", line);
  }
}

// A growable line buffer from the C library's allocator: call stacks are
// written on fatal paths, where the runtime's own allocator may be the
// thing that failed.
class LineBuffer {
 public:
  LineBuffer() : text_(static_cast<char*>(__KyMallocInternal(kInitialLineSize))) {
    size_ = text_ != nullptr ? kInitialLineSize : 0;
  }
  ~LineBuffer() { __KyFreeInternal(text_); }
  LineBuffer(const LineBuffer&) = delete;
  LineBuffer& operator=(const LineBuffer&) = delete;

  // Formats into the buffer, growing it to twice the needed size when the
  // text does not fit. Returns the text, or null when memory ran out.
  template <typename... Arguments>
  const char* format(const char* format, Arguments... arguments) {
    int length = size_ ? __KySnprintf(text_, size_, format, arguments...) : -1;
    if (length < 0) return nullptr;
    if (static_cast<size_t>(length) + 1 > size_) {
      __KyFreeInternal(text_);
      size_ = 2 * (static_cast<size_t>(length) + 1);
      text_ = static_cast<char*>(__KyMallocInternal(size_));
      if (text_ == nullptr) {
        size_ = 0;
        return nullptr;
      }
      __KySnprintf(text_, size_, format, arguments...);
    }
    return text_;
  }

 private:
  char* text_;
  size_t size_;
};

void EmitFrame(LineBuffer& line, void* frame, const char* symbol) {
  const char* text;
  const char* module = nullptr;
  uint64_t base = 0;
  if (symbol != nullptr) {
    text = line.format("=> %p: %s", frame, symbol);
  } else if ((base = __KyGetModuleForVariable(reinterpret_cast<uintptr_t>(frame), &module)) != 0) {
    void* offset = reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(frame) - base);
    text = line.format("=> %s!%p (%p)", module, offset, frame);
  } else {
    text = line.format("=> %p", frame);
  }
  if (text != nullptr) EmitLine(text);
}

}  // namespace

extern "C" {

void __KyLogCallstack(const char* name, void* const* frames, uint32_t count) noexcept {
  const uint16_t frameCount = static_cast<uint16_t>(count);  // modulo 65,536
  LineBuffer line;
  if (frameCount == 0 || frames == nullptr) {
    if (const char* text = line.format("Unable to unwind %s call stack.", name)) EmitLine(text);
    return;
  }
  char** symbols = __KyGetStackBackTraceSymbols(frames, frameCount);
  if (const char* text = line.format("Frames of %s call stack:", name)) EmitLine(text);
  for (uint16_t i = 0; i < frameCount; ++i) {
    EmitFrame(line, frames[i], symbols != nullptr ? symbols[i] : nullptr);
  }
  std::free(symbols);  // one allocation of the C library, strings included
}

void __KyLogCurrentCallstack(void) noexcept {
  void* frames[kCurrentCallstackCapacity];
  const uint16_t count = __KyCaptureCurrentStackBackTrace(frames);
  __KyLogCallstack(kCurrentCallstackName, frames, count);
}

void __KySetExitHandler(KyExitHandlerProc handler) noexcept {
  kyrt::StoreRelaxed(&g_exitHandler, handler);
}

void __KyExitHandler(int32_t code) noexcept {
  if (KyExitHandlerProc handler = kyrt::LoadRelaxed(&g_exitHandler)) handler(code);
  std::exit(-1);  // status 255, whatever the code and even if the handler returned
}

void __KyFatalExit(int32_t code) noexcept {
  __KyLogInternal(KY_LOG_ERROR, kyrt::LoadRelaxed(&KYLOG_MSG_ABNORMAL_TERMINATE), 0,
                  static_cast<const char*>(nullptr));
  __KyExitHandler(code);
}

void __KyLogFatalToolDefect(const char* format, ...) noexcept {
  const bool started = __KyGetStarted() != 0;
  va_list arguments;
  va_start(arguments, format);
  if (started) {
    kyrt::WriteLogRecord(KY_LOG_ERROR, KY_LOG_MSG_INTERNAL, 0, format, arguments);
  } else {
    std::vprintf(format, arguments);
    std::putchar('\n');
  }
  va_end(arguments);
  __KyLogCurrentCallstack();
  if (!started) std::fflush(stdout);
  __KyFatalExit(-1);
}

}  // extern "C"
