#include "json/decimal.h"

#include <cmath>

// Vendored, header-only: fast_float (Eisel-Lemire with a correct fallback) reads, Dragonbox
// writes. See third_party/README.md for their versions and licences.
#include <dragonbox/dragonbox.h>
#include <fast_float/fast_float.h>

namespace vorn::Decimal {

const char* toDouble(const char* first, const char* last, double& value) {
  // fast_float would also take "inf" and "nan"; neither is a number here.
  const char* d = first + (first < last && *first == '-');
  if (d == last || !((*d >= '0' && *d <= '9') || *d == '.')) return nullptr;
  double v = 0;
  fast_float::from_chars_result r = fast_float::from_chars(first, last, v);
  if (r.ec != std::errc()) return nullptr;
  value = v;
  return r.ptr;
}

Digits shortest(double magnitude) {
  if (magnitude == 0) return {0, 0};
  auto decimal = jkj::dragonbox::to_decimal(std::fabs(magnitude));
  return {decimal.significand, decimal.exponent};
}

int digitCount(uint64_t n) {
  int count = 1;
  while (n >= 10000) {
    n /= 10000;
    count += 4;
  }
  while (n >= 10) {
    n /= 10;
    ++count;
  }
  return count;
}

int writeDigits(char* out, uint64_t n) {
  static constexpr char kPairs[] =
      "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
      "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
      "8081828384858687888990919293949596979899";
  int count = digitCount(n);
  char* p = out + count;
  while (n >= 100) {
    const char* pair = kPairs + (n % 100) * 2;
    n /= 100;
    *--p = pair[1];
    *--p = pair[0];
  }
  if (n >= 10) {
    *--p = kPairs[n * 2 + 1];
    *--p = kPairs[n * 2];
  } else {
    *--p = static_cast<char>('0' + n);
  }
  return count;
}

}  // namespace vorn::Decimal
