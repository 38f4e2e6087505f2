// LEB128 decoding as annotation expressions use it: 32-bit results, and
// never a byte read at or beyond the end of the buffer.
//
// Each byte adds its low seven bits at a shift that grows by seven; bits
// that would land at or above bit 32 are dropped, however long the number
// runs. A signed number is sign-extended from bit 6 of its last byte when
// that byte ended below bit 32. A number whose continuation bit is still
// set on the last byte of the buffer is incomplete: the decoder fails and
// leaves the result and the position untouched.
#ifndef KYRT_ZCA_LEB128_H
#define KYRT_ZCA_LEB128_H

#include <cstdint>

namespace kyrt::zca {

constexpr uint8_t kLebPayloadMask = 0x7F;
constexpr uint8_t kLebContinuationBit = 0x80;
constexpr uint8_t kSlebSignBit = 0x40;
constexpr unsigned kLebBitsPerByte = 7;
constexpr unsigned kLebKeptBits = 32;

// The bits of a number collected so far; the shift stops growing once it
// has passed the kept bits, so a very long run cannot wrap it around.
struct LebAccumulator {
  uint32_t value = 0;
  unsigned shift = 0;
  uint8_t lastByte = 0;

  void add(uint8_t byte) {
    if (shift < kLebKeptBits) {
      value |= static_cast<uint32_t>(byte & kLebPayloadMask) << shift;
      shift += kLebBitsPerByte;
    }
    lastByte = byte;
  }
};

// Collects the bytes of one number from bytes[*position] on, never reading
// bytes[end] or beyond. On success *position is just past the number.
inline bool AccumulateLeb(const uint8_t* bytes, uint64_t end, uint64_t* position,
                          LebAccumulator* number) {
  uint64_t cursor = *position;
  LebAccumulator collected;
  for (;;) {
    if (cursor >= end) return false;
    const uint8_t byte = bytes[cursor++];
    collected.add(byte);
    if ((byte & kLebContinuationBit) == 0) break;
  }
  *number = collected;
  *position = cursor;
  return true;
}

// An unsigned LEB128 number.
inline bool ReadUleb128(const uint8_t* bytes, uint64_t end, uint64_t* position, uint32_t* value) {
  LebAccumulator number;
  if (!AccumulateLeb(bytes, end, position, &number)) return false;
  *value = number.value;
  return true;
}

// A signed LEB128 number.
inline bool ReadSleb128(const uint8_t* bytes, uint64_t end, uint64_t* position, int32_t* value) {
  LebAccumulator number;
  if (!AccumulateLeb(bytes, end, position, &number)) return false;
  uint32_t bits = number.value;
  if (number.shift < kLebKeptBits && (number.lastByte & kSlebSignBit) != 0) {
    bits |= ~uint32_t{0} << number.shift;
  }
  *value = static_cast<int32_t>(bits);
  return true;
}

}  // namespace kyrt::zca

#endif  // KYRT_ZCA_LEB128_H
