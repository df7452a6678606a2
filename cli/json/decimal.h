// Decimal text and doubles, converted the same way on every platform and C++ library: reading
// rounds correctly to the nearest double, and writing finds the shortest digits that read back
// to the same double. The standard library's floating-point from_chars and to_chars would do
// both, but macOS's C++ library lacks the first before LLVM 20 and Apple allows the second only
// from macOS 13.3, below the oldest macOS we support.
#pragma once

#include <cstdint>

namespace vorn::Decimal {

// Reads a number of the form [-]digits[.digits][(e|E)[+|-]digits] (at least one digit before or
// after the point) at first, as std::from_chars does, and returns where it ends, or nullptr when
// none stands there. A magnitude beyond the double range reads as infinity, one below its
// smallest step as zero, each with the number's sign.
const char* toDouble(const char* first, const char* last, double& value);

// A finite, nonzero magnitude as significand x 10^exponent, with the fewest significand digits
// that read back to the same double (the closest such, ties to even); no trailing zeros.
struct Digits {
  uint64_t significand;
  int exponent;
};
Digits shortest(double magnitude);

// How many decimal digits n has (1 for 0).
int digitCount(uint64_t n);

// Writes the digitCount(n) digits of n at out, without a terminator; returns their count.
int writeDigits(char* out, uint64_t n);

}  // namespace vorn::Decimal
