// The annotation parser's 32-bit LEB128 decoders on arbitrary bytes,
// compared number by number with a plain reference decoder written here.
//
// The input is decoded as a stream of numbers, alternately unsigned and
// signed as chosen by the first byte's bits, until the decoder refuses an
// incomplete number at the end. Both decoders must agree on every value, on
// where each number ends and on where the stream stops. The bytes live in an
// exact-size copy so that AddressSanitizer sees any read at or past the end.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "zca/leb128.h"

namespace {

constexpr unsigned kBitsPerByte = 7;
constexpr unsigned kResultBits = 32;
constexpr uint8_t kPayload = 0x7F;
constexpr uint8_t kMore = 0x80;
constexpr uint8_t kSign = 0x40;

// One decoded number: its 32 kept bits, where it ended, and how far its
// last byte reached.
struct ReferenceNumber {
  uint32_t bits = 0;
  uint64_t next = 0;
  unsigned endShift = 0;
  uint8_t lastByte = 0;
};

// Collects whole bytes into a 64-bit word of kept bits; anything landing at
// bit 32 or above is cut off at the end rather than during the loop, the
// opposite order to the decoder under test.
bool ReferenceCollect(const uint8_t* bytes, uint64_t size, uint64_t start,
                      ReferenceNumber* number) {
  uint64_t wide = 0;
  unsigned shift = 0;
  for (uint64_t at = start; at < size; ++at) {
    const uint8_t byte = bytes[at];
    if (shift < kResultBits) wide |= static_cast<uint64_t>(byte & kPayload) << shift;
    shift += kBitsPerByte;
    if ((byte & kMore) == 0) {
      number->bits = static_cast<uint32_t>(wide);
      number->next = at + 1;
      number->endShift = shift;
      number->lastByte = byte;
      return true;
    }
  }
  return false;
}

uint32_t ReferenceSigned(const ReferenceNumber& number) {
  const bool extend = number.endShift < kResultBits && (number.lastByte & kSign) != 0;
  if (!extend) return number.bits;
  return number.bits | static_cast<uint32_t>(UINT64_C(0xFFFFFFFF) << number.endShift);
}

void Require(bool condition) {
  if (!condition) std::abort();
}

// Decodes one number with both decoders and checks that they agree;
// returns false once the stream ends.
bool DecodeOneAndCompare(const uint8_t* bytes, uint64_t size, bool asSigned, uint64_t* position) {
  ReferenceNumber expected;
  const bool complete = ReferenceCollect(bytes, size, *position, &expected);
  const uint64_t before = *position;
  if (asSigned) {
    int32_t value = 0x5A5A5A5A;
    const bool decoded = kyrt::zca::ReadSleb128(bytes, size, position, &value);
    Require(decoded == complete);
    if (!decoded) {
      Require(*position == before && value == 0x5A5A5A5A);  // untouched on failure
      return false;
    }
    Require(static_cast<uint32_t>(value) == ReferenceSigned(expected));
  } else {
    uint32_t value = 0xA5A5A5A5;
    const bool decoded = kyrt::zca::ReadUleb128(bytes, size, position, &value);
    Require(decoded == complete);
    if (!decoded) {
      Require(*position == before && value == 0xA5A5A5A5);
      return false;
    }
    Require(value == expected.bits);
  }
  Require(*position == expected.next);
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const uint8_t pattern = data[0];  // bit i: number i (mod 8) is signed
  const uint64_t length = size - 1;
  std::unique_ptr<uint8_t[]> bytes(new uint8_t[length]);
  if (length != 0) std::memcpy(bytes.get(), data + 1, length);
  uint64_t position = 0;
  for (unsigned index = 0;; ++index) {
    const bool asSigned = ((pattern >> (index % 8)) & 1) != 0;
    if (!DecodeOneAndCompare(bytes.get(), length, asSigned, &position)) break;
    Require(position <= length);
  }
  return 0;
}
