// Environment variables: the C library's environment of the process, with
// null arguments refused instead of passed on.
#include <cstdlib>

#include "kyrt/strings.h"

extern "C" {

char* __KyGetEnvironmentVariable(const char* name) noexcept {
  if (name == nullptr) return nullptr;
  return std::getenv(name);
}

int __KySetEnvironmentVariableEx(const char* name, const char* value, int overwrite) noexcept {
  if (name == nullptr || value == nullptr) return 0;
  return setenv(name, value, overwrite) == 0 ? 1 : 0;
}

int __KySetEnvironmentVariable(const char* name, const char* value) noexcept {
  return __KySetEnvironmentVariableEx(name, value, 1);
}

void __KyUnsetEnvironmentVariable(const char* name) noexcept {
  if (name == nullptr) return;
  unsetenv(name);
}

}  // extern "C"
