// Decimal reading and shortest writing: the grammar std::from_chars accepts, correct rounding,
// and, where the C++ library has them (libstdc++), the very same results as std::from_chars and
// std::to_chars for random and boundary values.
#include "json/decimal.h"

#include <gtest/gtest.h>

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>
#include <random>
#include <string>
#include <vector>

#if defined(__GLIBCXX__)
#include <charconv>
#endif

namespace vorn {
namespace {

// The number toDouble read from the whole text, or nothing when it stopped early or read none.
std::optional<double> readWhole(const std::string& text) {
  double v = -1;
  const char* end = Decimal::toDouble(text.data(), text.data() + text.size(), v);
  if (end != text.data() + text.size()) return std::nullopt;
  return v;
}

// Where toDouble stopped in text, as an offset, or -1 when it read nothing.
long stopsAt(const std::string& text) {
  double v = 0;
  const char* end = Decimal::toDouble(text.data(), text.data() + text.size(), v);
  return end ? end - text.data() : -1;
}

// The scientific text "d.ddde±x" of the shortest digits, as a reader would lay them out.
std::string scientific(double v) {
  Decimal::Digits d = Decimal::shortest(v);
  std::string digits = std::to_string(d.significand);
  int exponent = d.exponent + static_cast<int>(digits.size()) - 1;
  std::string out = v < 0 ? "-" : "";
  out += digits[0];
  if (digits.size() > 1) out += "." + digits.substr(1);
  char e[16];
  std::snprintf(e, sizeof e, "e%c%02d", exponent < 0 ? '-' : '+', std::abs(exponent));
  return out + e;
}

uint64_t bitsOf(double v) {
  uint64_t u;
  std::memcpy(&u, &v, 8);
  return u;
}

double fromBits(uint64_t u) {
  double v;
  std::memcpy(&v, &u, 8);
  return v;
}

TEST(Decimal, ReadsTheNumberGrammar) {
  EXPECT_EQ(readWhole("0"), 0.0);
  EXPECT_EQ(readWhole("12"), 12.0);
  EXPECT_EQ(readWhole("-12.5"), -12.5);
  EXPECT_EQ(readWhole(".5"), 0.5);
  EXPECT_EQ(readWhole("-.5"), -0.5);
  EXPECT_EQ(readWhole("1."), 1.0);
  EXPECT_EQ(readWhole("007"), 7.0);
  EXPECT_EQ(readWhole("1e3"), 1000.0);
  EXPECT_EQ(readWhole("1E+3"), 1000.0);
  EXPECT_EQ(readWhole("25e-2"), 0.25);
  EXPECT_TRUE(std::signbit(*readWhole("-0")));
  EXPECT_FALSE(std::signbit(*readWhole("0")));
}

TEST(Decimal, StopsWhereFromCharsStops) {
  // An exponent without digits is not part of the number.
  EXPECT_EQ(stopsAt("1e"), 1);
  EXPECT_EQ(stopsAt("1e+"), 1);
  EXPECT_EQ(stopsAt("1.5E-"), 3);
  EXPECT_EQ(stopsAt("1.2.3"), 3);
  EXPECT_EQ(stopsAt("12-3"), 2);
  // No digit at all, a plus sign, words: nothing is read.
  for (const char* none : {"", "-", ".", "-.", "e5", "+1", "inf", "-inf", "nan", "infinity", " 1", "--1"})
    EXPECT_EQ(stopsAt(none), -1) << none;
}

TEST(Decimal, OutOfRangeBecomesInfinityOrZeroWithItsSign) {
  EXPECT_EQ(readWhole("1e400"), std::numeric_limits<double>::infinity());
  EXPECT_EQ(readWhole("-1e400"), -std::numeric_limits<double>::infinity());
  EXPECT_EQ(readWhole("1" + std::string(400, '0')), std::numeric_limits<double>::infinity());
  EXPECT_EQ(readWhole("1e-400"), 0.0);
  EXPECT_TRUE(std::signbit(*readWhole("-1e-400")));
  EXPECT_EQ(readWhole("0." + std::string(400, '0') + "1"), 0.0);
  EXPECT_EQ(readWhole("1e-99999999999999999999"), 0.0);
  EXPECT_EQ(readWhole("0e99999999999999999999"), 0.0);
  // The largest double and the smallest subnormal, at their edges.
  EXPECT_EQ(readWhole("1.7976931348623157e308"), std::numeric_limits<double>::max());
  EXPECT_EQ(readWhole("1.7976931348623158e308"), std::numeric_limits<double>::max());
  EXPECT_EQ(readWhole("1.797693134862315808e308"), std::numeric_limits<double>::infinity());
  EXPECT_EQ(readWhole("4.9406564584124654e-324"), std::numeric_limits<double>::denorm_min());
  EXPECT_EQ(readWhole("2.4703282292062328e-324"), std::numeric_limits<double>::denorm_min());
  EXPECT_EQ(readWhole("2.4703282292062327e-324"), 0.0);
}

TEST(Decimal, RoundsCorrectlyAtHalfwayPoints) {
  // 2^53 + 1 lies halfway between two doubles: ties go to the even one.
  EXPECT_EQ(readWhole("9007199254740993"), 9007199254740992.0);
  EXPECT_EQ(readWhole("9007199254740993.0000000000000000001"), 9007199254740994.0);
  EXPECT_EQ(readWhole("9007199254740995"), 9007199254740996.0);
  // Classic hard cases: the boundary of the subnormals, and long inputs right at a halfway
  // point that only all of their digits decide.
  EXPECT_EQ(bitsOf(*readWhole("2.2250738585072011e-308")), 0x000fffffffffffffull);
  EXPECT_EQ(bitsOf(*readWhole("2.2250738585072012e-308")), 0x0010000000000000ull);
  for (const char* hard : {"2.22507385850720113605740979670913197593481954635164564e-308",
                           "9007199254740992.99999999999999999999999999999999999999999",
                           "1.00000000000000011102230246251565404236316680908203125",
                           "1.00000000000000011102230246251565404236316680908203124",
                           "1.00000000000000011102230246251565404236316680908203126",
                           "7.4109846876186982e-323", "17976931348623157e292"})
    EXPECT_EQ(bitsOf(*readWhole(hard)), bitsOf(std::strtod(hard, nullptr))) << hard;
  EXPECT_EQ(readWhole("1.00000000000000011102230246251565404236316680908203125"), 1.0);
  EXPECT_EQ(readWhole("1.00000000000000011102230246251565404236316680908203126"),
            std::nextafter(1.0, 2.0));
  EXPECT_EQ(readWhole("0.1"), 0.1);
  EXPECT_EQ(readWhole("0.30000000000000004"), 0.1 + 0.2);
}

TEST(Decimal, ShortestDigits) {
  auto digits = [](double v) {
    Decimal::Digits d = Decimal::shortest(v);
    return std::to_string(d.significand) + "e" + std::to_string(d.exponent);
  };
  EXPECT_EQ(digits(0.1), "1e-1");
  EXPECT_EQ(digits(-0.1), "1e-1");
  EXPECT_EQ(digits(1.5), "15e-1");
  EXPECT_EQ(digits(100), "1e2");
  EXPECT_EQ(digits(1.0 / 3), "3333333333333333e-16");
  EXPECT_EQ(digits(5e-324), "5e-324");
  EXPECT_EQ(digits(std::numeric_limits<double>::max()), "17976931348623157e292");
  EXPECT_EQ(digits(0.1 + 0.2), "30000000000000004e-17");
  EXPECT_EQ(digits(0), "0e0");
}

TEST(Decimal, DigitCount) {
  EXPECT_EQ(Decimal::digitCount(0), 1);
  EXPECT_EQ(Decimal::digitCount(9), 1);
  EXPECT_EQ(Decimal::digitCount(10), 2);
  EXPECT_EQ(Decimal::digitCount(9999), 4);
  EXPECT_EQ(Decimal::digitCount(10000), 5);
  EXPECT_EQ(Decimal::digitCount(99999999999999999ull), 17);
  EXPECT_EQ(Decimal::digitCount(UINT64_MAX), 20);
}

TEST(Decimal, WriteDigits) {
  for (uint64_t n : {0ull, 7ull, 10ull, 99ull, 100ull, 12345ull, 1000000007ull, 18446744073709551615ull}) {
    char out[24];
    int count = Decimal::writeDigits(out, n);
    EXPECT_EQ(std::string(out, count), std::to_string(n));
  }
}

// Doubles from random bit patterns, and every power of two and ten with its neighbours.
std::vector<double> sampleDoubles(size_t randomCount) {
  std::vector<double> values;
  std::mt19937_64 random(20261125);
  while (values.size() < randomCount) {
    double v = fromBits(random());
    if (std::isfinite(v) && v != 0) values.push_back(v);
  }
  auto withNeighbours = [&](double p) {
    for (double v : {p, std::nextafter(p, 0.0), std::nextafter(p, INFINITY)})
      if (v != 0 && std::isfinite(v)) values.push_back(v);
  };
  for (int e = -1074; e <= 1023; ++e)
    withNeighbours(std::ldexp(1.0, e));
  for (int e = -323; e <= 308; ++e)
    withNeighbours(std::strtod(("1e" + std::to_string(e)).c_str(), nullptr));
  values.push_back(std::numeric_limits<double>::max());
  values.push_back(std::numeric_limits<double>::denorm_min());
  values.push_back(std::numeric_limits<double>::min());
  return values;
}

TEST(Decimal, ShortestTextReadsBackToTheSameDouble) {
  for (double v : sampleDoubles(200000)) {
    std::string text = scientific(v);
    ASSERT_EQ(bitsOf(std::strtod(text.c_str(), nullptr)), bitsOf(v)) << text;
    ASSERT_EQ(bitsOf(*readWhole(text)), bitsOf(v)) << text;
    Decimal::Digits d = Decimal::shortest(v);
    ASSERT_TRUE(d.significand % 10 != 0) << text;
  }
}

// Decimal strings of every length around the double range's edges and the digit counts where
// fast paths end, read back against the C library's correctly rounded strtod.
std::vector<std::string> sampleDecimals(size_t count) {
  std::vector<std::string> texts;
  std::mt19937_64 random(4242);
  for (size_t i = 0; i < count; ++i) {
    size_t digits = 1 + random() % 30;
    std::string mantissa;
    for (size_t k = 0; k < digits; ++k)
      mantissa += static_cast<char>('0' + random() % 10);
    size_t point = random() % (digits + 1);
    std::string text = (random() % 2 ? "-" : "") + mantissa.substr(0, point);
    if (point < digits || point == 0) text += "." + mantissa.substr(point);
    if (random() % 3 != 0) {
      int exponent = static_cast<int>(random() % 700) - 350;
      text += (random() % 2 ? "e" : "E") + std::to_string(exponent);
    }
    texts.push_back(text);
  }
  return texts;
}

TEST(Decimal, ReadsAsStrtodDoesInTheCLocale) {
  for (const std::string& text : sampleDecimals(200000)) {
    std::optional<double> v = readWhole(text);
    ASSERT_TRUE(v) << text;
    ASSERT_EQ(bitsOf(*v), bitsOf(std::strtod(text.c_str(), nullptr))) << text;
  }
}

#if defined(__GLIBCXX__)
// libstdc++ has both conversions for doubles: ours must give the same bits and the same digits.
TEST(Decimal, SameAsTheStandardLibrary) {
  for (double v : sampleDoubles(1000000)) {
    char buf[40];
    auto r = std::to_chars(buf, buf + sizeof buf, v, std::chars_format::scientific);
    ASSERT_EQ(scientific(v), std::string(buf, r.ptr)) << bitsOf(v);
  }
  for (const std::string& text : sampleDecimals(300000)) {
    double expected = 0;
    auto r = std::from_chars(text.data(), text.data() + text.size(), expected);
    if (r.ec == std::errc::result_out_of_range) continue;  // libstdc++ leaves the value alone
    double v = 0;
    const char* end = Decimal::toDouble(text.data(), text.data() + text.size(), v);
    ASSERT_EQ(end, r.ptr) << text;
    ASSERT_EQ(bitsOf(v), bitsOf(expected)) << text;
  }
}
#endif

}  // namespace
}  // namespace vorn
