// The JSON grammar as a template over what is done with each value read: building the value
// (TreeSink), writing indented text, or picking out the few fields a verb needs from a large
// reply without keeping the rest.
#pragma once

#include <cstdint>
#include <cstring>
#include <iterator>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "json/byte_scan.h"
#include "json/decimal.h"
#include "json/json.h"

namespace vorn {

namespace JSONDetail {

inline constexpr int kMaxDepth = 511;  // deepest depth at which a value may stand

struct ByteClasses {
  bool space[256] = {};
  bool number[256] = {};
  bool stop[256] = {};  // ends a run of string text that may be written as it stands
  constexpr ByteClasses() {
    for (int c = 0; c < 0x20; ++c)
      stop[c] = true;
    stop['"'] = stop['\\'] = true;
    space[' '] = space['\t'] = space['\n'] = space['\r'] = true;
    for (int c = '0'; c <= '9'; ++c)
      number[c] = true;
    number['+'] = number['-'] = number['.'] = number['e'] = number['E'] = true;
  }
};
inline constexpr ByteClasses kClass;

inline int hexValue(unsigned char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Appends the UTF-8 bytes of a Unicode scalar.
void appendScalar(std::string& out, uint32_t c);

// JSON::appendQuoted for text known to be valid UTF-8: escapes, without checking the encoding.
void appendQuotedUTF8(std::string& out, std::string_view text);

// The text between quotes as it stands: for text that needs no escape and is valid UTF-8.
inline void appendVerbatim(std::string& out, std::string_view text) {
  out.push_back('"');
  out.append(text.data(), text.size());
  out.push_back('"');
}

// Whether a sink wants the text of strings and keys. One that declares keepsText = false is
// only checking that the text parses, and strings are then scanned without being copied.
template <typename Sink>
constexpr bool keepsText() {
  if constexpr (requires { Sink::keepsText; }) {
    return Sink::keepsText;
  } else {
    return true;
  }
}

}  // namespace JSONDetail

// A string or a key as read. The text is valid UTF-8 and lasts until the next string is read
// (it is a view of the input where the string had no escape, else of the reader's buffer).
// `verbatim`: written between quotes as it stands, it is the string's JSON text, because the
// input held it so (no escape, no control byte, valid UTF-8).
struct StringRead {
  std::string_view text;
  bool verbatim;
};

// The grammar, once. A Sink hears each value as it is read: null, boolean, number, string,
// beginArray/endArray, beginObject/key/endObject.
template <typename Sink>
class JSONReader {
 public:
  JSONReader(std::string_view text, Sink& sink, TextBytes bytes)
      : begin_(text.data()),
        p_(text.data()),
        end_(text.data() + text.size()),
        sink_(sink),
        validInput_(bytes == TextBytes::validUTF8) {}

  void parse() {
    skipSpace();
    value(0);
    skipSpace();
    if (p_ != end_) fail("unexpected trailing data");
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
    while (p_ < end_ && JSONDetail::kClass.space[static_cast<unsigned char>(*p_)])
      ++p_;
  }

  // Reads one value standing at the given depth; callers skip whitespace around it.
  void value(int depth) {
    if (depth > JSONDetail::kMaxDepth) fail("nesting too deep");
    if (p_ == end_) fail("unexpected end");
    switch (*p_) {
      case '"':
        sink_.string(string());
        return;
      case '[':
        array(depth);
        return;
      case '{':
        object(depth);
        return;
      case 't':
        literal("true", 4);
        sink_.boolean(true);
        return;
      case 'f':
        literal("false", 5);
        sink_.boolean(false);
        return;
      case 'n':
        literal("null", 4);
        sink_.null();
        return;
      default:
        sink_.number(number());
        return;
    }
  }

  void literal(const char* word, size_t length) {
    if (static_cast<size_t>(end_ - p_) < length || std::memcmp(p_, word, length) != 0) {
      fail("bad literal");
    }
    p_ += length;
  }

  void array(int depth) {
    ++p_;
    skipSpace();
    sink_.beginArray();
    if (p_ < end_ && *p_ == ']') {
      ++p_;
      sink_.endArray();
      return;
    }
    for (;;) {
      value(depth + 1);
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
    sink_.endArray();
  }

  void object(int depth) {
    ++p_;
    skipSpace();
    sink_.beginObject();
    if (p_ < end_ && *p_ == '}') {
      ++p_;
      sink_.endObject();
      return;
    }
    for (;;) {
      if (p_ == end_) fail("unterminated object");
      if (*p_ != '"') fail("expected a key");
      sink_.key(string());
      skipSpace();
      if (p_ == end_ || *p_ != ':') fail("expected :");
      ++p_;
      skipSpace();
      value(depth + 1);
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
    sink_.endObject();
  }

  // The position is at the opening quote. A string without escapes is handed on as a view of
  // the text itself; at the first backslash the text read so far goes to the scratch buffer and
  // the rest is decoded after it. Text with a non-ASCII byte is checked as UTF-8 unless the whole
  // input is known to be valid. A sink that keeps no text gets the escapes alone, unchecked.
  StringRead string() {
    constexpr bool keep = JSONDetail::keepsText<Sink>();
    const char* start = ++p_;
    bool high = false;
    bool control = false;
    for (;;) {
      p_ = ByteScan::skipVerbatim(p_, end_, &high);
      while (p_ < end_ && !JSONDetail::kClass.stop[static_cast<unsigned char>(*p_)]) {
        high |= static_cast<unsigned char>(*p_) >= 0x80;
        ++p_;
      }
      if (p_ == end_) fail("unterminated string");
      if (*p_ == '"') {
        std::string_view text(start, static_cast<size_t>(p_ - start));
        ++p_;
        if constexpr (keep) return checked(text, high, control);
        return {text, false};
      }
      if (*p_ == '\\') break;
      control = true;  // a raw control byte: kept, written escaped
      ++p_;
    }
    if constexpr (keep) scratch_.assign(start, static_cast<size_t>(p_ - start));
    return escapedString(high);
  }

  // The rest of a string from its first backslash on, decoded into the scratch buffer.
  StringRead escapedString(bool high) {
    constexpr bool keep = JSONDetail::keepsText<Sink>();
    std::string& out = scratch_;
    for (;;) {
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
          high |= static_cast<unsigned char>(c) >= 0x80;
          out.push_back(c);
      }
      const char* run = p_;
      for (;;) {
        p_ = ByteScan::skipVerbatim(p_, end_, &high);
        while (p_ < end_ && !JSONDetail::kClass.stop[static_cast<unsigned char>(*p_)]) {
          high |= static_cast<unsigned char>(*p_) >= 0x80;
          ++p_;
        }
        if (p_ == end_ || *p_ == '"' || *p_ == '\\') break;
        ++p_;  // a raw control byte
      }
      if constexpr (keep) out.append(run, static_cast<size_t>(p_ - run));
      if (p_ == end_) fail("unterminated string");
      if (*p_ == '"') break;
    }
    ++p_;
    if constexpr (keep) return checked(out, high, true);
    return {out, false};
  }

  // The text as the sink gets it: valid UTF-8, ill-formed sequences replaced by U+FFFD.
  StringRead checked(std::string_view text, bool high, bool escaped) {
    if (high && !validInput_ && !isValidUTF8(text)) {
      scratch_ = toValidUTF8(text);
      return {scratch_, false};
    }
    return {text, !escaped};
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
      JSONDetail::appendScalar(out, 0xFFFD);
      c = d;
    }
    if (c >= 0xD800 && c <= 0xDFFF) c = 0xFFFD;
    JSONDetail::appendScalar(out, c);
  }

  uint32_t hex4() {
    if (end_ - p_ < 4) fail("bad \\u escape");
    uint32_t c = 0;
    for (int i = 0; i < 4; ++i) {
      int h = JSONDetail::hexValue(static_cast<unsigned char>(*p_));
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
    // Plain integers of up to 18 digits, read as they are scanned: exact in 64 bits, and one
    // conversion to double rounds them correctly.
    {
      bool negative = *start == '-';
      const char* d = start + negative;
      const char* q = d;
      uint64_t u = 0;
      while (q < end_ && static_cast<unsigned char>(*q - '0') < 10 && q - d < 19) {
        u = u * 10 + static_cast<uint64_t>(*q - '0');
        ++q;
      }
      if (q > d && q - d <= 18 &&
          (q == end_ || !JSONDetail::kClass.number[static_cast<unsigned char>(*q)])) {
        p_ = q;
        double v = static_cast<double>(u);
        return negative ? -v : v;
      }
    }

    while (p_ < end_ && JSONDetail::kClass.number[static_cast<unsigned char>(*p_)])
      ++p_;
    const char* first = start;
    const char* last = p_;
    if (first == last) fail("bad number");

    if (*first == '+') {
      ++first;
      if (first == last || *first == '+' || *first == '-') fail("bad number");
    }
    double v = 0;
    if (Decimal::toDouble(first, last, v) != last) fail("bad number");
    return v;
  }

  const char* begin_;
  const char* p_;
  const char* end_;
  Sink& sink_;
  bool validInput_;  // the whole text is valid UTF-8, and so every string in it
  std::string scratch_;
};

// Counts the entries of every container, in the order in which the containers open, so that
// TreeSink can give each one storage of its exact size before reading it.
class SizeSink {
 public:
  static constexpr bool keepsText = false;
  void null() { entry(); }
  void boolean(bool) { entry(); }
  void number(double) { entry(); }
  void string(const StringRead&) { entry(); }
  void key(const StringRead&) {}
  void beginArray() { open(); }
  void beginObject() { open(); }
  void endArray() { open_.pop_back(); }
  void endObject() { open_.pop_back(); }

  std::vector<uint32_t> take() { return std::move(sizes_); }

 private:
  void entry() {
    // A size is only a hint for the storage to set aside: past 2^32 - 1 it stops counting.
    if (!open_.empty() && sizes_[open_.back()] != UINT32_MAX) ++sizes_[open_.back()];
  }
  void open() {
    entry();
    open_.push_back(sizes_.size());
    sizes_.push_back(0);
  }

  std::vector<uint32_t> sizes_;
  std::vector<size_t> open_;
};

// Builds the value, each entry in its place in its container. With the sizes that SizeSink
// counted, every container is allocated once at its exact size, so a parsed reply holds no
// spare room and is never copied; without them the containers grow as they are filled.
class TreeSink {
 public:
  TreeSink() = default;
  explicit TreeSink(std::vector<uint32_t> sizes) : sizes_(std::move(sizes)) {}

  void null() { put(nullptr); }
  void boolean(bool b) { put(b); }
  void number(double v) { put(v); }
  void string(const StringRead& s) {
    JSON value(s.text);
    if (s.verbatim) value.markVerbatim();
    put(std::move(value));
  }
  void key(const StringRead& k) { frames_.back().object->emplace_back(k.text, JSON()); }

  void beginArray() { frames_.push_back({open<JSON::Array>(JSON::array()), nullptr}); }
  void beginObject() { frames_.push_back({nullptr, open<JSON::Object>(JSON::object())}); }
  void endArray() { close(); }
  void endObject() { close(); }

  JSON result() { return std::move(root_); }

 private:
  struct Frame {
    JSON::Array* array;    // the open array, or
    JSON::Object* object;  // the open object, whose last pair waits for its value
  };

  size_t nextSize() { return next_ < sizes_.size() ? sizes_[next_++] : 0; }

  // Puts the empty container where it belongs and gives it storage for the entries counted.
  template <typename Container>
  Container* open(JSON empty) {
    auto* container = new Container;
    empty.setPointer(container);  // owned from here on, should reserving fail
    container->reserve(nextSize());
    put(std::move(empty));
    return container;
  }

  // An empty container gives its storage back: an empty value holds none.
  void close() {
    Frame frame = frames_.back();
    frames_.pop_back();
    if (frame.array && frame.array->empty()) last() = JSON::array();
    if (frame.object && frame.object->empty()) last() = JSON::object();
  }

  // Builds the value where it belongs.
  template <typename T>
  void put(T&& value) {
    if (frames_.empty()) {
      root_ = JSON(std::forward<T>(value));
    } else if (JSON::Array* array = frames_.back().array) {
      array->emplace_back(std::forward<T>(value));
    } else {
      frames_.back().object->back().second = JSON(std::forward<T>(value));
    }
  }

  // The value put last into the innermost open container: the one that has just closed.
  JSON& last() {
    if (frames_.empty()) return root_;
    if (JSON::Array* array = frames_.back().array) return array->back();
    return frames_.back().object->back().second;
  }

  std::vector<uint32_t> sizes_;
  size_t next_ = 0;
  std::vector<Frame> frames_;
  JSON root_;
};

// Hears every value and keeps nothing: reading with it checks that the text parses.
struct CheckSink {
  static constexpr bool keepsText = false;
  void null() {}
  void boolean(bool) {}
  void number(double) {}
  void string(const StringRead&) {}
  void key(const StringRead&) {}
  void beginArray() {}
  void beginObject() {}
  void endArray() {}
  void endObject() {}
};

// Reads `text`, telling `sink` each value; throws JSONParseError.
template <typename Sink>
void readJSON(std::string_view text, Sink& sink, TextBytes bytes = TextBytes::unchecked) {
  JSONReader<Sink>(text, sink, bytes).parse();
}

}  // namespace vorn
