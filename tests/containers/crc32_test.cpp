// The CRC-32: the check values of the standard CRC-32, the empty and
// degenerate inputs, and every length from 0 to 4096 against a bitwise
// reference and zlib.
#include <zlib.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "gtest/gtest.h"
#include "kyrt/vectors.h"
#include "sync/lock_test_support.h"

namespace kyrt_test {
namespace {

// The reflected form of the polynomial 0x04C11DB7.
constexpr uint32_t kReflectedPolynomial = 0xEDB88320;
constexpr uint32_t kCrcInitialValue = 0xFFFFFFFF;
constexpr size_t kLongestBuffer = 4096;

// The definition, one bit at a time.
uint32_t BitwiseCrc32(const unsigned char* data, size_t length) {
  uint32_t crc = kCrcInitialValue;
  for (size_t i = 0; i < length; ++i) {
    crc ^= data[i];
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (kReflectedPolynomial & (0u - (crc & 1)));
  }
  return ~crc;
}

uint32_t ZlibCrc32(const unsigned char* data, size_t length) {
  return static_cast<uint32_t>(crc32(0L, data, static_cast<uInt>(length)));
}

uint32_t CrcOfText(const char* text) {
  return __KyCRC32(text, static_cast<int64_t>(std::strlen(text)));
}

std::vector<unsigned char> RandomBytes(size_t count, uint32_t seed) {
  std::mt19937 random(seed);
  std::vector<unsigned char> bytes(count);
  for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(random());
  return bytes;
}

class Crc32Test : public RuntimeTest {};

TEST_F(Crc32Test, TheNineDigitsGiveTheCheckValue) {
  EXPECT_EQ(CrcOfText("123456789"), 0xCBF43926u);
}

TEST_F(Crc32Test, KnownValuesOfShortInputs) {
  EXPECT_EQ(CrcOfText("a"), 0xE8B7BE43u);
  EXPECT_EQ(CrcOfText("The quick brown fox jumps over the lazy dog"), 0x414FA339u);
  const unsigned char zero = 0;
  EXPECT_EQ(__KyCRC32(&zero, 1), 0xD202EF8Du);
  const std::vector<unsigned char> ones(32, 0xFF);
  EXPECT_EQ(__KyCRC32(ones.data(), 32), 0xFF6CAB0Bu);
}

TEST_F(Crc32Test, AnEmptyBufferGivesZero) {
  const char text[] = "ignored";
  EXPECT_EQ(__KyCRC32(text, 0), 0u);
  EXPECT_EQ(__KyCRC32(nullptr, 0), 0u);
}

TEST_F(Crc32Test, NegativeLengthsAndNullDataGiveZero) {
  const char text[] = "123456789";
  EXPECT_EQ(__KyCRC32(text, -1), 0u);
  EXPECT_EQ(__KyCRC32(text, INT64_MIN), 0u);
  EXPECT_EQ(__KyCRC32(nullptr, 9), 0u);
}

TEST_F(Crc32Test, EveryLengthUpTo4096MatchesTheBitwiseDefinitionAndZlib) {
  const std::vector<unsigned char> bytes = RandomBytes(kLongestBuffer, 0x0C0FFEE);
  for (size_t length = 0; length <= kLongestBuffer; ++length) {
    const uint32_t ours = __KyCRC32(bytes.data(), static_cast<int64_t>(length));
    ASSERT_EQ(ours, BitwiseCrc32(bytes.data(), length)) << "length " << length;
    ASSERT_EQ(ours, ZlibCrc32(bytes.data(), length)) << "length " << length;
  }
}

TEST_F(Crc32Test, FreshRandomBuffersOfEveryLengthAtEveryAlignmentMatchZlib) {
  std::mt19937 random(4096);
  for (size_t length = 0; length <= kLongestBuffer; ++length) {
    const size_t offset = length % 8;
    const std::vector<unsigned char> bytes = RandomBytes(length + offset, random());
    const unsigned char* start = bytes.data() + offset;
    ASSERT_EQ(__KyCRC32(start, static_cast<int64_t>(length)), ZlibCrc32(start, length))
        << "length " << length << " offset " << offset;
  }
}

TEST_F(Crc32Test, AMegabyteBufferMatchesZlib) {
  constexpr size_t kMegabyte = size_t{1} << 20;
  const std::vector<unsigned char> bytes = RandomBytes(kMegabyte + 3, 1);
  EXPECT_EQ(__KyCRC32(bytes.data(), kMegabyte + 3), ZlibCrc32(bytes.data(), kMegabyte + 3));
}

}  // namespace
}  // namespace kyrt_test
