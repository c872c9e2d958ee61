// Segment bitmap: one bit per segment, bit n in byte n / 8 at position n mod 8, least significant
// first. The bytes belong to whoever allocated them; the functions only read and change bits.
#pragma once

#include <cstddef>
#include <cstdint>

namespace pkgdist {

// Bytes that hold `bits` bits; computed in 64 bits, since counts near 2^32 are legal.
constexpr size_t bitmap_bytes(uint32_t bits) {
  return (uint64_t{bits} + 7) / 8;
}

// Segments of `segment_size` bytes that hold `total` bytes, rounded up. `segment_size` is not 0.
constexpr uint32_t segments_of(uint64_t total, uint32_t segment_size) {
  return static_cast<uint32_t>((total + segment_size - 1) / segment_size);
}

inline bool bit_is_set(const uint8_t* bitmap, uint32_t bits, uint32_t n) {
  return n < bits && (bitmap[n / 8] >> n % 8 & 1) != 0;
}

// Sets bit n and counts it, if n is in range and was clear.
inline void bit_set(uint8_t* bitmap, uint32_t bits, uint32_t n, uint32_t& count) {
  if (n >= bits || bit_is_set(bitmap, bits, n)) return;
  bitmap[n / 8] = static_cast<uint8_t>(bitmap[n / 8] | 1u << n % 8);
  ++count;
}

// Clears bit n and uncounts it, if it was set.
inline void bit_clear(uint8_t* bitmap, uint32_t bits, uint32_t n, uint32_t& count) {
  if (!bit_is_set(bitmap, bits, n)) return;
  bitmap[n / 8] = static_cast<uint8_t>(bitmap[n / 8] & ~(1u << n % 8));
  --count;
}

}  // namespace pkgdist
