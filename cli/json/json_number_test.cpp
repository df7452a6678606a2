// The text of JSON numbers: exact layouts at the boundaries, and shortest round-trip text for
// random doubles.
#include <gtest/gtest.h>

#include <cctype>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <string>

#include "json/json.h"

namespace vorn {
namespace {

TEST(JSONNumber, Examples) {
  EXPECT_EQ(JSON::formatNumber(1.0), "1");
  EXPECT_EQ(JSON::formatNumber(-0.0), "0");
  EXPECT_EQ(JSON::formatNumber(0.0), "0");
  EXPECT_EQ(JSON::formatNumber(0.1), "0.1");
  EXPECT_EQ(JSON::formatNumber(1e21), "1e+21");
  EXPECT_EQ(JSON::formatNumber(std::nan("")), "null");
  EXPECT_EQ(JSON::formatNumber(std::numeric_limits<double>::infinity()), "null");
  EXPECT_EQ(JSON::formatNumber(-std::numeric_limits<double>::infinity()), "null");
  EXPECT_EQ(JSON::formatNumber(3), "3");
  EXPECT_EQ(JSON::formatNumber(-42), "-42");
  EXPECT_EQ(JSON::formatNumber(0.5), "0.5");
  EXPECT_EQ(JSON::formatNumber(-2.25), "-2.25");
  EXPECT_EQ(JSON::formatNumber(0.0001), "0.0001");
  EXPECT_EQ(JSON::formatNumber(1e-5), "1e-05");
  EXPECT_EQ(JSON::formatNumber(1.5e-7), "1.5e-07");
  EXPECT_EQ(JSON::formatNumber(1.2345e22), "1.2345e+22");
  EXPECT_EQ(JSON::formatNumber(1e20), "100000000000000000000");
  EXPECT_EQ(JSON::formatNumber(123456.789), "123456.789");
  EXPECT_EQ(JSON::formatNumber(1.0 / 3), "0.3333333333333333");
  EXPECT_EQ(JSON::formatNumber(-1e21), "-1e+21");
  EXPECT_EQ(JSON::formatNumber(1e300), "1e+300");
  EXPECT_EQ(JSON::formatNumber(5e-324), "5e-324");
  EXPECT_EQ(JSON::formatNumber(-1.7976931348623157e308), "-1.7976931348623157e+308");
  EXPECT_EQ(JSON::formatNumber(2.2250738585072014e-308), "2.2250738585072014e-308");
  EXPECT_EQ(JSON::formatNumber(1234567.125), "1234567.125");
  EXPECT_EQ(JSON::formatNumber(-0.00012), "-0.00012");
}

TEST(JSONNumber, LayoutBoundaries) {
  // 1e-4 is the smallest magnitude in plain notation.
  EXPECT_EQ(JSON::formatNumber(1e-4), "0.0001");
  EXPECT_EQ(JSON::formatNumber(-1e-4), "-0.0001");
  EXPECT_EQ(JSON::formatNumber(std::nextafter(1e-4, 0.0)), "9.999999999999999e-05");
  EXPECT_EQ(JSON::formatNumber(std::nextafter(1e-4, 1.0)), "0.00010000000000000002");
  // Integral values below 9.2e18 print as 64-bit integers, 2^53 and beyond included.
  EXPECT_EQ(JSON::formatNumber(9007199254740992.0), "9007199254740992");
  EXPECT_EQ(JSON::formatNumber(9007199254740994.0), "9007199254740994");
  EXPECT_EQ(JSON::formatNumber(-9007199254740992.0), "-9007199254740992");
  EXPECT_EQ(JSON::formatNumber(4503599627370495.5), "4503599627370495.5");
  EXPECT_EQ(JSON::formatNumber(std::nextafter(9.2e18, 0.0)), "9199999999999998976");
  EXPECT_EQ(JSON::formatNumber(-std::nextafter(9.2e18, 0.0)), "-9199999999999998976");
  // From 9.2e18 up to 1e21 every digit is printed.
  EXPECT_EQ(JSON::formatNumber(9.2e18), "9200000000000000000");
  EXPECT_EQ(JSON::formatNumber(-9.2e18), "-9200000000000000000");
  EXPECT_EQ(JSON::formatNumber(9223372036854775807.0), "9223372036854775808");
  EXPECT_EQ(JSON::formatNumber(std::nextafter(1e21, 0.0)), "999999999999999868928");
  // From 1e21 on, exponent notation.
  EXPECT_EQ(JSON::formatNumber(1e21), "1e+21");
  EXPECT_EQ(JSON::formatNumber(std::nextafter(1e21, 1e22)), "1.0000000000000001e+21");
  EXPECT_EQ(JSON::formatNumber(1e100), "1e+100");
}

TEST(JSONNumber, AppendNumberAppends) {
  std::string out = "n=";
  JSON::appendNumber(out, 2.5);
  EXPECT_EQ(out, "n=2.5");
  std::string q = "q=";
  JSON::appendQuoted(q, "x");
  EXPECT_EQ(q, "q=\"x\"");
}

// The number of significant digits in a plain or exponent number text.
int significantDigits(const std::string& s) {
  std::string digits;
  for (char c : s) {
    if (c == 'e') break;
    if (c >= '0' && c <= '9') digits += c;
  }
  size_t first = digits.find_first_not_of('0');
  if (first == std::string::npos) return 0;
  size_t last = digits.find_last_not_of('0');
  return static_cast<int>(last - first + 1);
}

bool isPlainLayout(const std::string& s) {
  size_t i = s[0] == '-';
  size_t digitsStart = i;
  while (i < s.size() && std::isdigit(static_cast<unsigned char>(s[i])))
    ++i;
  size_t whole = i - digitsStart;
  if (whole == 0 || (whole > 1 && s[digitsStart] == '0')) return false;
  if (i == s.size()) return true;
  if (s[i] != '.') return false;
  size_t fracStart = ++i;
  while (i < s.size() && std::isdigit(static_cast<unsigned char>(s[i])))
    ++i;
  return i == s.size() && i > fracStart && s.back() != '0';
}

bool isExponentLayout(const std::string& s) {
  size_t e = s.find('e');
  if (e == std::string::npos) return false;
  std::string mantissa = s.substr(0, e), exponent = s.substr(e + 1);
  size_t i = mantissa[0] == '-';
  if (mantissa.size() <= i || mantissa[i] < '1' || mantissa[i] > '9') return false;
  if (mantissa.size() > i + 1) {
    if (mantissa[i + 1] != '.' || mantissa.size() < i + 3 || mantissa.back() == '0') return false;
    for (size_t k = i + 2; k < mantissa.size(); ++k) {
      if (!std::isdigit(static_cast<unsigned char>(mantissa[k]))) return false;
    }
  }
  if (exponent.size() < 3 || (exponent[0] != '+' && exponent[0] != '-')) return false;
  for (size_t k = 1; k < exponent.size(); ++k) {
    if (!std::isdigit(static_cast<unsigned char>(exponent[k]))) return false;
  }
  return exponent.size() == 3 || exponent[1] != '0';
}

bool sameBits(double a, double b) {
  uint64_t x, y;
  std::memcpy(&x, &a, 8);
  std::memcpy(&y, &b, 8);
  return x == y;
}

// Checks one finite double's text against every rule; returns an empty string or a complaint.
std::string checkNumberText(double v) {
  std::string s = JSON::formatNumber(v);
  double a = std::fabs(v);
  bool integral = std::trunc(v) == v;
  char buf[64];
  if (integral && a < 9.2e18) {
    std::snprintf(buf, sizeof buf, "%" PRId64, static_cast<int64_t>(v));
    return s == buf ? "" : "integer text " + s + " want " + buf;
  }
  if (integral && a < 1e21) {
    std::snprintf(buf, sizeof buf, "%.0f", v);
    return s == buf ? "" : "large integer text " + s + " want " + buf;
  }
  double back = std::strtod(s.c_str(), nullptr);
  if (!sameBits(back, v)) return "does not read back: " + s;
  int n = significantDigits(s);
  if (n > 1) {
    // The nearest text with one digit fewer must not read back to the same double.
    std::snprintf(buf, sizeof buf, "%.*e", n - 2, v);
    if (std::strtod(buf, nullptr) == v) return "not shortest: " + s + " vs " + buf;
  }
  if (a >= 1e-4 && a < 9007199254740992.0) {
    if (!isPlainLayout(s)) return "want plain layout: " + s;
  } else if (!isExponentLayout(s)) {
    return "want exponent layout: " + s;
  }
  return "";
}

TEST(JSONNumber, RandomDoublesAreShortestAndReadBack) {
  std::mt19937_64 rng(20240611);
  int checked = 0, subnormal = 0, largeIntegral = 0, plainFraction = 0, exponentForm = 0;
  for (int i = 0; i < 200000; ++i) {
    double v;
    switch (i % 4) {
      case 0:
      case 1: {  // any bit pattern: every exponent, subnormals included
        uint64_t bits = rng();
        std::memcpy(&v, &bits, 8);
        break;
      }
      case 2: {  // short decimals across a wide range
        int digits = static_cast<int>(rng() % 17) + 1;
        uint64_t m = rng() % static_cast<uint64_t>(std::pow(10.0, digits));
        int exponent = static_cast<int>(rng() % 80) - 40;
        v = std::strtod((std::to_string(m) + "e" + std::to_string(exponent)).c_str(), nullptr);
        if (rng() & 1) v = -v;
        break;
      }
      default: {  // small magnitudes near the layout boundaries
        int exponent = static_cast<int>(rng() % 50) - 25;
        v = std::ldexp(static_cast<double>(rng() >> 11) / 9007199254740992.0, exponent * 3);
        break;
      }
    }
    if (!std::isfinite(v)) {
      EXPECT_EQ(JSON::formatNumber(v), "null");
      continue;
    }
    std::string complaint = checkNumberText(v);
    ASSERT_EQ(complaint, "") << "value bits " << std::hexfloat << v;
    ++checked;
    double a = std::fabs(v);
    if (a != 0 && a < std::numeric_limits<double>::min()) ++subnormal;
    if (a >= 9.2e18 && a < 1e21) ++largeIntegral;
    if (std::trunc(v) != v && a >= 1e-4) ++plainFraction;
    if (JSON::formatNumber(v).find('e') != std::string::npos) ++exponentForm;
  }
  EXPECT_GT(checked, 190000);
  // Every region of the layout was reached.
  EXPECT_GT(subnormal, 10);
  EXPECT_GT(largeIntegral, 100);
  EXPECT_GT(plainFraction, 10000);
  EXPECT_GT(exponentForm, 10000);
}

TEST(JSONNumber, SubnormalsAndExtremes) {
  for (double v : {5e-324, -5e-324, 1e-310, 2.2250738585072009e-308, 2.2250738585072014e-308,
                   1.7976931348623157e308, 9.999999999999999e-5, 1e-4, 1e21, 1e22, 1e23, 4.35, 0.3,
                   2.0 / 3, 1e15 + 0.5}) {
    EXPECT_EQ(checkNumberText(v), "") << v;
  }
}

}  // namespace
}  // namespace vorn
