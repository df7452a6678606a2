// JSON text to value: a recursive-descent parser over UTF-8 bytes, strict about structure and
// lenient about escapes, raw control bytes in strings and number spellings.
#include <charconv>
#include <cstring>
#include <iterator>
#include <limits>
#include <vector>

#include "json/json.h"

namespace vorn {

namespace {

constexpr int kMaxDepth = 511;  // deepest depth at which a value may stand

constexpr uint64_t kOnes = 0x0101010101010101ull;
constexpr uint64_t kHighs = 0x8080808080808080ull;

inline uint64_t hasZeroByte(uint64_t w) {
  return (w - kOnes) & ~w & kHighs;
}

struct ByteClasses {
  bool space[256] = {};
  bool number[256] = {};
  constexpr ByteClasses() {
    space[' '] = space['\t'] = space['\n'] = space['\r'] = true;
    for (int c = '0'; c <= '9'; ++c)
      number[c] = true;
    number['+'] = number['-'] = number['.'] = number['e'] = number['E'] = true;
  }
};
constexpr ByteClasses kClass;

inline int hexValue(unsigned char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

void appendScalar(std::string& out, uint32_t c) {
  if (c < 0x80) {
    out.push_back(static_cast<char>(c));
  } else if (c < 0x800) {
    char b[2] = {static_cast<char>(0xC0 | (c >> 6)), static_cast<char>(0x80 | (c & 0x3F))};
    out.append(b, 2);
  } else if (c < 0x10000) {
    char b[3] = {static_cast<char>(0xE0 | (c >> 12)), static_cast<char>(0x80 | ((c >> 6) & 0x3F)),
                 static_cast<char>(0x80 | (c & 0x3F))};
    out.append(b, 3);
  } else {
    char b[4] = {static_cast<char>(0xF0 | (c >> 18)), static_cast<char>(0x80 | ((c >> 12) & 0x3F)),
                 static_cast<char>(0x80 | ((c >> 6) & 0x3F)), static_cast<char>(0x80 | (c & 0x3F))};
    out.append(b, 4);
  }
}

// For a run that the decimal conversion accepted but whose value is out of the double range:
// true when the magnitude is too large (the value becomes infinity), false when too small (zero).
bool overflows(const char* p, const char* end) {
  if (p < end && (*p == '-' || *p == '+')) ++p;
  long long wholeDigits = 0, leadingZeros = 0;
  bool seenNonZero = false, inFraction = false;
  for (; p < end && *p != 'e' && *p != 'E'; ++p) {
    if (*p == '.') {
      inFraction = true;
      continue;
    }
    if (!inFraction) ++wholeDigits;
    if (!seenNonZero) {
      if (*p == '0') {
        ++leadingZeros;
      } else {
        seenNonZero = true;
      }
    }
  }
  long long exponent = 0;
  if (p < end) {
    ++p;
    bool negative = false;
    if (p < end && (*p == '-' || *p == '+')) negative = *p++ == '-';
    for (; p < end; ++p) {
      if (exponent < 1000000000) exponent = exponent * 10 + (*p - '0');
    }
    if (negative) exponent = -exponent;
  }
  // The first significant digit stands at 10^(wholeDigits - leadingZeros - 1 + exponent).
  return wholeDigits - leadingZeros - 1 + exponent >= 0;
}

}  // namespace

class JSONParser {
 public:
  JSONParser(std::string_view text)
      : begin_(text.data()), p_(text.data()), end_(text.data() + text.size()) {}

  JSON parse() {
    JSON out;
    skipSpace();
    value(0, out);
    skipSpace();
    if (p_ != end_) fail("unexpected trailing data");
    return out;
  }

 private:
  [[noreturn]] void fail(const char* text) const { fail(text, p_); }
  [[noreturn]] void fail(const char* text, const char* at) const {
    std::string message(text);
    message += " at offset ";
    message += std::to_string(at - begin_);
    throw JSONParseError{std::move(message)};
  }

  void skipSpace() {
    while (p_ < end_ && kClass.space[static_cast<unsigned char>(*p_)])
      ++p_;
  }

  // Reads one value standing at the given depth into out; callers skip whitespace around it.
  void value(int depth, JSON& out) {
    if (depth > kMaxDepth) fail("nesting too deep");
    if (p_ == end_) fail("unexpected end");
    switch (*p_) {
      case '"':
        string(out.v_.emplace<std::string>());
        return;
      case '[':
        array(depth, out);
        return;
      case '{':
        object(depth, out);
        return;
      case 't':
        literal("true", 4);
        out.v_ = true;
        return;
      case 'f':
        literal("false", 5);
        out.v_ = false;
        return;
      case 'n':
        literal("null", 4);
        out.v_ = nullptr;
        return;
      default:
        out.v_ = number();
        return;
    }
  }

  void literal(const char* word, size_t length) {
    if (static_cast<size_t>(end_ - p_) < length || std::memcmp(p_, word, length) != 0) {
      fail("bad literal");
    }
    p_ += length;
  }

  // Elements and members are gathered on stacks shared by all levels and then moved into a
  // container of the exact size: one allocation per container instead of one per growth step.
  void array(int depth, JSON& out) {
    size_t base = values_.size();
    ++p_;
    skipSpace();
    if (p_ < end_ && *p_ == ']') {
      ++p_;
      out.v_.emplace<JSON::Array>();
      return;
    }
    for (;;) {
      JSON element;
      value(depth + 1, element);
      values_.push_back(std::move(element));
      skipSpace();
      if (p_ == end_) fail("unterminated array");
      if (*p_ == ',') {
        ++p_;
        skipSpace();
        continue;
      }
      if (*p_ == ']') {
        ++p_;
        break;
      }
      fail("expected , or ]");
    }
    out.v_.emplace<JSON::Array>(std::make_move_iterator(values_.begin() + base),
                                std::make_move_iterator(values_.end()));
    values_.resize(base);
  }

  void object(int depth, JSON& out) {
    size_t base = members_.size();
    ++p_;
    skipSpace();
    if (p_ < end_ && *p_ == '}') {
      ++p_;
      out.v_.emplace<JSON::Object>();
      return;
    }
    for (;;) {
      if (p_ == end_) fail("unterminated object");
      if (*p_ != '"') fail("expected a key");
      JSON::Member member;
      string(member.first);
      skipSpace();
      if (p_ == end_ || *p_ != ':') fail("expected :");
      ++p_;
      skipSpace();
      value(depth + 1, member.second);
      members_.push_back(std::move(member));
      skipSpace();
      if (p_ == end_) fail("unterminated object");
      if (*p_ == ',') {
        ++p_;
        skipSpace();
        continue;
      }
      if (*p_ == '}') {
        ++p_;
        break;
      }
      fail("expected , or }");
    }
    out.v_.emplace<JSON::Object>(std::make_move_iterator(members_.begin() + base),
                                 std::make_move_iterator(members_.end()));
    members_.resize(base);
  }

  // The position is at the opening quote. Runs of plain bytes are copied with one append; the
  // collected bytes are checked as UTF-8 only when some byte had its high bit set.
  void string(std::string& out) {
    ++p_;
    uint64_t high = 0;
    for (;;) {
      const char* run = p_;
      while (end_ - p_ >= 8) {
        uint64_t w;
        std::memcpy(&w, p_, 8);
        if (hasZeroByte(w ^ (kOnes * '"')) | hasZeroByte(w ^ (kOnes * '\\'))) break;
        high |= w;
        p_ += 8;
      }
      while (p_ < end_ && *p_ != '"' && *p_ != '\\') {
        high |= static_cast<unsigned char>(*p_);
        ++p_;
      }
      out.append(run, p_ - run);
      if (p_ == end_) fail("unterminated string");
      if (*p_ == '"') {
        ++p_;
        break;
      }
      ++p_;  // the backslash
      if (p_ == end_) fail("unterminated string");
      char c = *p_++;
      switch (c) {
        case 'b':
          out.push_back('\b');
          break;
        case 'f':
          out.push_back('\f');
          break;
        case 'n':
          out.push_back('\n');
          break;
        case 'r':
          out.push_back('\r');
          break;
        case 't':
          out.push_back('\t');
          break;
        case 'u':
          unicodeEscape(out);
          break;
        default:
          // Any other escaped byte stands for itself ("\q" is "q").
          high |= static_cast<unsigned char>(c);
          out.push_back(c);
      }
    }
    if ((high & kHighs) && !isValidUTF8(out)) out = toValidUTF8(out);
  }

  // The position is after "\u". A high surrogate joins a following "\u" low surrogate. When the
  // second escape is not a low surrogate, the high one is lone (U+FFFD) and the second escape is
  // decoded on its own, as if it had come first: it may itself start a pair, a lone surrogate
  // gives U+FFFD and any other code is kept.
  void unicodeEscape(std::string& out) {
    uint32_t c = hex4();
    while (c >= 0xD800 && c <= 0xDBFF && end_ - p_ >= 2 && p_[0] == '\\' && p_[1] == 'u') {
      p_ += 2;
      uint32_t d = hex4();
      if (d >= 0xDC00 && d <= 0xDFFF) {
        c = 0x10000 + ((c - 0xD800) << 10) + (d - 0xDC00);
        break;
      }
      appendScalar(out, 0xFFFD);
      c = d;
    }
    if (c >= 0xD800 && c <= 0xDFFF) c = 0xFFFD;
    appendScalar(out, c);
  }

  uint32_t hex4() {
    if (end_ - p_ < 4) fail("bad \\u escape");
    uint32_t c = 0;
    for (int i = 0; i < 4; ++i) {
      int h = hexValue(static_cast<unsigned char>(*p_));
      if (h < 0) fail("bad \\u escape");
      c = c << 4 | static_cast<uint32_t>(h);
      ++p_;
    }
    return c;
  }

  // The longest run of number bytes, which the decimal conversion must accept whole. A leading
  // "+" is allowed, as the C library's conversion does; a value beyond the double range becomes
  // infinity (printed as null) or zero.
  double number() {
    const char* start = p_;
    while (p_ < end_ && kClass.number[static_cast<unsigned char>(*p_)])
      ++p_;
    const char* first = start;
    const char* last = p_;
    if (first == last) fail("bad number");

    // Plain integers of up to 18 digits: exact in 64 bits, and one conversion to double rounds
    // them correctly.
    bool negative = *first == '-';
    const char* d = first + negative;
    if (d < last && last - d <= 18) {
      uint64_t u = 0;
      const char* q = d;
      for (; q < last && *q >= '0' && *q <= '9'; ++q)
        u = u * 10 + static_cast<uint64_t>(*q - '0');
      if (q == last) {
        double v = static_cast<double>(u);
        return negative ? -v : v;
      }
    }

    if (*first == '+') {
      ++first;
      if (first == last || *first == '+' || *first == '-') fail("bad number");
    }
    double v = 0;
    auto r = std::from_chars(first, last, v);
    if (r.ptr != last) fail("bad number");
    if (r.ec == std::errc::result_out_of_range) {
      v = overflows(first, last) ? std::numeric_limits<double>::infinity() : 0.0;
      if (*first == '-') v = -v;
    } else if (r.ec != std::errc()) {
      fail("bad number");
    }
    return v;
  }

  const char* begin_;
  const char* p_;
  const char* end_;
  std::vector<JSON> values_;
  std::vector<JSON::Member> members_;
  std::string scratch_;
};

JSON JSON::parse(std::string_view text) {
  return JSONParser(text).parse();
}

}  // namespace vorn
