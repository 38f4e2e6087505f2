// Names of the GPU architecture generations a module may be built for.
#include <cstdint>

#include "kyrt/modules.h"

namespace {

// Indexed by generation number; neutral names that carry no vendor or
// product naming.
constexpr const char* kArchitectureGenerationNames[] = {
    "gpu-gen-0", "gpu-gen-1", "gpu-gen-2", "gpu-gen-3", "gpu-gen-4",  "gpu-gen-5",
    "gpu-gen-6", "gpu-gen-7", "gpu-gen-8", "gpu-gen-9", "gpu-gen-10",
};

constexpr uint32_t kArchitectureGenerationCount =
    sizeof kArchitectureGenerationNames / sizeof kArchitectureGenerationNames[0];
static_assert(kArchitectureGenerationCount == 11, "generations 0 to 10");

constexpr const char* kUnknownArchitecture = "unknown";

}  // namespace

extern "C" const char* __KyGetModuleArchString(uint32_t index) noexcept {
  return index < kArchitectureGenerationCount ? kArchitectureGenerationNames[index]
                                              : kUnknownArchitecture;
}
