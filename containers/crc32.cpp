// The CRC-32 of a byte buffer.
//
// The checksum is Boost's table-driven CRC engine instantiated with the
// parameters of the zip and Ethernet CRC-32. The engine keeps its 256-entry
// table in a function-local static, so the table is built once, on the first
// call, and C++ guarantees that concurrent first calls wait for that one
// construction: the function is safe from any thread without a lock of ours.
#include <boost/crc.hpp>

#include <cstddef>
#include <type_traits>

#include "kyrt/vectors.h"

namespace kyrt {
namespace {

constexpr std::size_t kCrcBits = 32;
constexpr uint32_t kCrcPolynomial = 0x04C11DB7;
constexpr uint32_t kCrcInitialValue = 0xFFFFFFFF;
constexpr uint32_t kCrcFinalXor = 0xFFFFFFFF;
constexpr bool kCrcReflectsInput = true;
constexpr bool kCrcReflectsOutput = true;

using Crc32Engine = boost::crc_optimal<kCrcBits, kCrcPolynomial, kCrcInitialValue, kCrcFinalXor,
                                       kCrcReflectsInput, kCrcReflectsOutput>;

static_assert(std::is_same_v<Crc32Engine, boost::crc_32_type>,
              "the engine is Boost's standard CRC-32");

}  // namespace
}  // namespace kyrt

extern "C" uint32_t __KyCRC32(const void* data, int64_t length) noexcept {
  if (data == nullptr || length <= 0) return 0;
  kyrt::Crc32Engine crc;
  crc.process_bytes(data, static_cast<std::size_t>(length));
  return crc.checksum();
}
