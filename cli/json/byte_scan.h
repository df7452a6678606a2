// Finding the bytes that end a run of plain string text, or of ASCII, sixteen at a time where the
// processor has SSE2 (every x86-64), eight at a time in portable code elsewhere (arm64 among
// them). Both give the same answers; only the speed differs.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace vorn::ByteScan {

inline constexpr uint64_t kOnes = 0x0101010101010101ull;
inline constexpr uint64_t kHighs = 0x8080808080808080ull;

// Nonzero when some byte of w is zero.
inline uint64_t hasZeroByte(uint64_t w) {
  return (w - kOnes) & ~w & kHighs;
}

// Nonzero when some byte of w is below n (n <= 128).
inline uint64_t hasByteBelow(uint64_t w, uint8_t n) {
  return (w - kOnes * n) & ~w & kHighs;
}

inline uint64_t load8(const char* p) {
  uint64_t w;
  std::memcpy(&w, p, 8);
  return w;
}

// Skips from p towards end over ASCII bytes, stopping at the first byte with its high bit set or
// where fewer than a block's bytes remain.
inline const char* skipASCII(const char* p, const char* end) {
#if defined(__SSE2__)
  while (end - p >= 16) {
    __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    unsigned highs = static_cast<unsigned>(_mm_movemask_epi8(v));
    if (highs) return p + std::countr_zero(highs);
    p += 16;
  }
#endif
  while (end - p >= 8) {
    uint64_t w = load8(p) & kHighs;
    if (w) {
      int bit = std::endian::native == std::endian::little ? std::countr_zero(w) : std::countl_zero(w);
      return p + bit / 8;
    }
    p += 8;
  }
  return p;
}

// Skips from p towards end over bytes that a JSON string literal writes as they are (not a
// quote, a backslash or a control byte below 0x20), the same way; sets *high when a byte skipped
// has its high bit set.
inline const char* skipVerbatim(const char* p, const char* end, bool* high) {
#if defined(__SSE2__)
  const __m128i quote = _mm_set1_epi8('"');
  const __m128i backslash = _mm_set1_epi8('\\');
  const __m128i space = _mm_set1_epi8(0x20);
  while (end - p >= 16) {
    __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    // A control byte is below 0x20 as an unsigned byte: max(v, 0x20) == 0x20 only then, or at
    // 0x20 itself, which cmpeq against the byte tells apart.
    __m128i control = _mm_andnot_si128(_mm_cmpeq_epi8(v, space),
                                       _mm_cmpeq_epi8(_mm_max_epu8(v, space), space));
    unsigned stops = static_cast<unsigned>(_mm_movemask_epi8(_mm_or_si128(
        control, _mm_or_si128(_mm_cmpeq_epi8(v, quote), _mm_cmpeq_epi8(v, backslash)))));
    unsigned highs = static_cast<unsigned>(_mm_movemask_epi8(v));
    if (stops) {
      unsigned before = (stops & -stops) - 1;
      if (highs & before) *high = true;
      return p + std::countr_zero(stops);
    }
    if (highs) *high = true;
    p += 16;
  }
#endif
  while (end - p >= 8) {
    uint64_t w = load8(p);
    if ((hasByteBelow(w, 0x20) | hasZeroByte(w ^ (kOnes * '"')) |
         hasZeroByte(w ^ (kOnes * '\\'))) &
        kHighs)
      break;
    if (w & kHighs) *high = true;
    p += 8;
  }
  return p;
}

}  // namespace vorn::ByteScan
