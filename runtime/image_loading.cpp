// Dynamic loading of images on behalf of a tool.
#include <dlfcn.h>

#include "kyrt/modules.h"

extern "C" {

void* __KyRtLoadImage(const char* path) noexcept {
  // Every reference is bound at load time, so that a missing dependency
  // fails here and not at some later call from deep inside the tool.
  return dlopen(path, RTLD_NOW);
}

void* __KyRtGetSymbol(void* handle, const char* name) noexcept {
  // A null handle would make dlsym search the global scope; refuse it
  // without touching the loader, whose pending error stays for the caller.
  if (handle == nullptr) return nullptr;
  // dlsym reports failure only through dlerror: clear any error left by an
  // earlier call so that the one read afterwards belongs to this lookup.
  dlerror();
  void* address = dlsym(handle, name);
  if (dlerror() != nullptr) return nullptr;
  return address;
}

uint64_t __KyGetImageOffsetFromPreferredAddress(void) noexcept {
  // Module offsets are taken from the low address the tool reports, which is
  // where the image was actually mapped: there is no rebasing to undo.
  return 0;
}

}  // extern "C"
