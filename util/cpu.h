// Internal seam of the processor queries.
//
// The XSAVE size query reads cpuid leaves 0 and 13 through a replaceable
// function so that tests can present a processor without leaf 13. The seam
// is internal (hidden visibility): tests reach it by linking the static
// archive. Production code always executes the instruction.
#ifndef KYRT_UTIL_CPU_H
#define KYRT_UTIL_CPU_H

#include <cstdint>

namespace kyrt {

// Executes cpuid(leaf, subleaf) and stores EAX, EBX, ECX, EDX in out[0..3].
using CpuidFunction = void (*)(uint32_t leaf, uint32_t subleaf, uint32_t out[4]);

// Replaces the cpuid used by __KyGetXsaveAreaMaxSize; null restores the
// instruction. Not synchronised: call it before the code under test runs.
void SetCpuidForTesting(CpuidFunction cpuid);

}  // namespace kyrt

#endif  // KYRT_UTIL_CPU_H
