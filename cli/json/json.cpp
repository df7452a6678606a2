// The JSON value: accessors, equality, merging, serialization and number formatting.
#include "json/json.h"

#include <charconv>
#include <cmath>
#include <cstring>

#include "json/block_writer.h"
#include "json/byte_scan.h"
#include "json/decimal.h"
#include "json/reader.h"

namespace vorn {

namespace {

// The length of the well-formed UTF-8 sequence at p (1 to 4), or 0 when it is ill-formed; then
// *bad is the length of its maximal ill-formed subpart (at least 1), which one U+FFFD replaces.
inline int utf8SequenceLength(const unsigned char* p, const unsigned char* end, int* bad) {
  unsigned char b0 = p[0];
  if (b0 < 0x80) return 1;
  int need;
  unsigned char lo = 0x80, hi = 0xBF;
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    need = 1;
  } else if (b0 == 0xE0) {
    need = 2, lo = 0xA0;
  } else if (b0 == 0xED) {
    need = 2, hi = 0x9F;  // no UTF-16 surrogates
  } else if (b0 >= 0xE1 && b0 <= 0xEF) {
    need = 2;
  } else if (b0 == 0xF0) {
    need = 3, lo = 0x90;
  } else if (b0 == 0xF4) {
    need = 3, hi = 0x8F;  // nothing above U+10FFFF
  } else if (b0 >= 0xF1 && b0 <= 0xF3) {
    need = 3;
  } else {
    *bad = 1;
    return 0;
  }
  for (int i = 1; i <= need; ++i) {
    if (p + i >= end) {
      *bad = i;
      return 0;
    }
    unsigned char c = p[i];
    bool ok = i == 1 ? (c >= lo && c <= hi) : (c >= 0x80 && c <= 0xBF);
    if (!ok) {
      *bad = i;
      return 0;
    }
  }
  return need + 1;
}

constexpr char kReplacement[] = "\xEF\xBF\xBD";

// 1 where a byte must be escaped inside a string literal.
struct EscapeTable {
  bool needs[256] = {};
  constexpr EscapeTable() {
    for (int c = 0; c < 0x20; ++c)
      needs[c] = true;
    needs['"'] = needs['\\'] = true;
  }
};
constexpr EscapeTable kEscape;

void appendEscaped(std::string& out, unsigned char c) {
  switch (c) {
    case '"':
      out.append("\\\"", 2);
      return;
    case '\\':
      out.append("\\\\", 2);
      return;
    case 0x08:
      out.append("\\b", 2);
      return;
    case 0x09:
      out.append("\\t", 2);
      return;
    case 0x0A:
      out.append("\\n", 2);
      return;
    case 0x0C:
      out.append("\\f", 2);
      return;
    case 0x0D:
      out.append("\\r", 2);
      return;
    default: {
      static constexpr char kHex[] = "0123456789abcdef";
      char buf[6] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 15]};
      out.append(buf, 6);
    }
  }
}

void appendInt(std::string& out, int64_t i) {
  char buf[24];
  auto r = std::to_chars(buf, buf + sizeof buf, i);
  out.append(buf, r.ptr - buf);
}

// The shortest digits that read back to v, laid out in plain or exponent notation.
void appendShortest(std::string& out, double v) {
  Decimal::Digits shortest = Decimal::shortest(v);
  char digits[24];
  int n = Decimal::writeDigits(digits, shortest.significand);
  int exponent = shortest.exponent + n - 1;  // of the first digit

  if (v < 0) out.push_back('-');
  double a = std::fabs(v);
  if (a >= 1e-4 && a < 9007199254740992.0) {
    if (exponent < 0) {
      out.append("0.", 2);
      out.append(static_cast<size_t>(-exponent - 1), '0');
      out.append(digits, n);
    } else {
      int whole = exponent + 1;
      if (n <= whole) {
        out.append(digits, n);
        out.append(static_cast<size_t>(whole - n), '0');
      } else {
        out.append(digits, whole);
        out.push_back('.');
        out.append(digits + whole, n - whole);
      }
    }
    return;
  }
  out.push_back(digits[0]);
  if (n > 1) {
    out.push_back('.');
    out.append(digits + 1, n - 1);
  }
  out.push_back('e');
  out.push_back(exponent < 0 ? '-' : '+');
  int e = exponent < 0 ? -exponent : exponent;
  if (e < 10) out.push_back('0');
  char ebuf[8];
  auto er = std::to_chars(ebuf, ebuf + sizeof ebuf, e);
  out.append(ebuf, er.ptr - ebuf);
}

inline void pad(std::string& out, int indent, int depth) {
  if (indent <= 0) return;
  out.push_back('\n');
  out.append(static_cast<size_t>(indent) * static_cast<size_t>(depth), ' ');
}

}  // namespace

JSON::JSON(bool b) noexcept {
  bytes_[0] = b;
  setTag(Tag::boolean);
}

JSON::JSON(double d) noexcept {
  std::memcpy(bytes_, &d, sizeof d);
  setTag(Tag::number);
}

JSON::JSON(std::string_view s) {
  setString(s);
}

JSON::JSON(Array a) {
  setPointer(a.empty() ? nullptr : new Array(std::move(a)));
  setTag(Tag::array);
}

JSON::JSON(Object o) {
  setPointer(o.empty() ? nullptr : new Object(std::move(o)));
  setTag(Tag::object);
}

JSON::JSON(const JSON& other) {
  copyFrom(other);
}

JSON::JSON(JSON&& other) noexcept {
  std::memcpy(bytes_, other.bytes_, sizeof bytes_);
  other.setTag(Tag::null);
}

JSON& JSON::operator=(const JSON& other) {
  if (this != &other) {
    JSON copy(other);
    *this = std::move(copy);
  }
  return *this;
}

// The other value may stand inside this one: it is taken out before this one is released.
JSON& JSON::operator=(JSON&& other) noexcept {
  if (this != &other) {
    unsigned char taken[sizeof bytes_];
    std::memcpy(taken, other.bytes_, sizeof taken);
    other.setTag(Tag::null);
    if (ownsStorage()) release();
    std::memcpy(bytes_, taken, sizeof bytes_);
  }
  return *this;
}

template <typename T>
T* JSON::pointer() const {
  T* p;
  std::memcpy(&p, bytes_, sizeof p);
  return p;
}

void JSON::setPointer(const void* p) {
  std::memcpy(bytes_, &p, sizeof p);
}

// Up to 14 bytes stand in the value itself; a longer text gets storage of its exact length.
void JSON::setString(std::string_view s) {
  if (s.size() <= kShortString) {
    std::memcpy(bytes_, s.data(), s.size());
    bytes_[14] = static_cast<unsigned char>(s.size());
    setTag(Tag::shortString);
    return;
  }
  char* text = new char[s.size()];
  std::memcpy(text, s.data(), s.size());
  setPointer(text);
  uint64_t size = s.size();  // below 2^48: no text this program holds comes near
  std::memcpy(bytes_ + 8, &size, 6);
  setTag(Tag::longString);
}

void JSON::release() noexcept {
  switch (tag()) {
    case Tag::longString:
      delete[] pointer<char>();
      break;
    case Tag::array:
      delete pointer<Array>();
      break;
    case Tag::object:
      delete pointer<Object>();
      break;
    default:
      break;
  }
  setTag(Tag::null);
}

void JSON::copyFrom(const JSON& other) {
  switch (other.tag()) {
    case Tag::longString:
      setString(*other.string());
      bytes_[15] = other.bytes_[15];
      return;
    case Tag::array: {
      const Array* a = other.pointer<Array>();
      setPointer(a ? new Array(*a) : nullptr);
      setTag(Tag::array);
      return;
    }
    case Tag::object: {
      const Object* o = other.pointer<Object>();
      setPointer(o ? new Object(*o) : nullptr);
      setTag(Tag::object);
      return;
    }
    default:
      std::memcpy(bytes_, other.bytes_, sizeof bytes_);
  }
}

JSON::Kind JSON::kind() const {
  switch (tag()) {
    case Tag::boolean:
      return Kind::boolean;
    case Tag::number:
      return Kind::number;
    case Tag::shortString:
    case Tag::longString:
      return Kind::string;
    case Tag::array:
      return Kind::array;
    case Tag::object:
      return Kind::object;
    default:
      return Kind::null;
  }
}

const JSON* JSON::get(std::string_view key) const {
  const Object* o = members();
  if (!o) return nullptr;
  for (auto it = o->rbegin(); it != o->rend(); ++it) {
    if (it->first == key) return &it->second;
  }
  return nullptr;
}

namespace {
const JSON::Array kEmptyArray;
const JSON::Object kEmptyObject;
}  // namespace

const JSON::Array& JSON::list() const {
  if (tag() != Tag::array) return kEmptyArray;
  const Array* a = pointer<Array>();
  return a ? *a : kEmptyArray;
}

bool JSON::isTrue() const {
  return tag() == Tag::boolean && bytes_[0];
}

std::optional<std::string> JSON::error() const {
  const JSON* e = get("error");
  if (!e) return std::nullopt;
  std::optional<std::string_view> s = e->string();
  if (!s) return std::nullopt;
  return std::string(*s);
}

std::optional<double> JSON::number() const {
  if (tag() != Tag::number) return std::nullopt;
  double d;
  std::memcpy(&d, bytes_, sizeof d);
  return d;
}

std::optional<int64_t> JSON::integer() const {
  std::optional<double> d = number();
  if (!d || !(std::fabs(*d) < 9e15) || std::trunc(*d) != *d) return std::nullopt;
  return static_cast<int64_t>(*d);
}

std::optional<std::string_view> JSON::string() const {
  if (tag() == Tag::shortString) {
    return std::string_view(reinterpret_cast<const char*>(bytes_), bytes_[14]);
  }
  if (tag() != Tag::longString) return std::nullopt;
  uint64_t size = 0;
  std::memcpy(&size, bytes_ + 8, 6);
  return std::string_view(pointer<char>(), static_cast<size_t>(size));
}

const JSON::Object* JSON::members() const {
  if (tag() != Tag::object) return nullptr;
  const Object* o = pointer<Object>();
  return o ? o : &kEmptyObject;
}

JSON::Array* JSON::mutableArray() {
  if (tag() != Tag::array) return nullptr;
  if (!pointer<Array>()) setPointer(new Array);
  return pointer<Array>();
}

JSON::Object* JSON::mutableObject() {
  if (tag() != Tag::object) return nullptr;
  if (!pointer<Object>()) setPointer(new Object);
  return pointer<Object>();
}

// Without prepend the given values win and replace the first pair of their key in place; with
// prepend the given keys move to the front and an existing value wins (the given value is only a
// default). The two lookups differ on purpose: callers rely on both behaviours.
JSON JSON::merging(const Object& pairs, bool prepend) const {
  const Object* own = members();
  if (!own) return *this;
  if (!prepend) {
    Object out = *own;
    for (const auto& [key, value] : pairs) {
      bool found = false;
      for (auto& member : out) {
        if (member.first == key) {
          member.second = value;
          found = true;
          break;
        }
      }
      if (!found) out.emplace_back(key, value);
    }
    return JSON(std::move(out));
  }
  Object out;
  out.reserve(pairs.size() + own->size());
  for (const auto& [key, value] : pairs) {
    const JSON* existing = get(key);
    out.emplace_back(key, existing ? *existing : value);
  }
  for (const auto& member : *own) {
    bool given = false;
    for (const auto& pair : pairs) {
      if (pair.first == member.first) {
        given = true;
        break;
      }
    }
    if (!given) out.push_back(member);
  }
  return JSON(std::move(out));
}

std::string JSON::serialized(int indent) const {
  std::string out;
  write(out, indent, 0);
  return out;
}

void JSON::write(std::string& out, int indent, int depth) const {
  writeValue(out, indent, depth, nullptr);
}

void JSON::writeTo(BlockWriter& out, int indent, int depth) const {
  writeValue(out.text(), indent, depth, &out);
}

void JSON::printTo(const std::function<void(std::string_view)>& write) const {
  BlockWriter out(write);
  writeTo(out, 2, 0);
  out.text() += '\n';
  out.flush();
}

void JSON::writeValue(std::string& out, int indent, int depth, BlockWriter* blocks) const {
  switch (tag()) {
    case Tag::null:
      out.append("null", 4);
      return;
    case Tag::boolean:
      if (bytes_[0]) {
        out.append("true", 4);
      } else {
        out.append("false", 5);
      }
      return;
    case Tag::number:
      appendNumber(out, *number());
      return;
    case Tag::shortString:
    case Tag::longString:
      if (verbatim()) {
        JSONDetail::appendVerbatim(out, *string());
      } else {
        appendQuoted(out, *string());
      }
      return;
    case Tag::array: {
      const Array& a = list();
      if (a.empty()) {
        out.append("[]", 2);
        return;
      }
      out.push_back('[');
      bool first = true;
      for (const JSON& element : a) {
        if (blocks) blocks->flushIfFull();
        if (!first) out.push_back(',');
        first = false;
        pad(out, indent, depth + 1);
        element.writeValue(out, indent, depth + 1, blocks);
      }
      pad(out, indent, depth);
      out.push_back(']');
      return;
    }
    case Tag::object: {
      const Object& o = *members();
      if (o.empty()) {
        out.append("{}", 2);
        return;
      }
      out.push_back('{');
      bool first = true;
      for (const auto& [key, value] : o) {
        if (blocks) blocks->flushIfFull();
        if (!first) out.push_back(',');
        first = false;
        pad(out, indent, depth + 1);
        appendQuoted(out, key);
        if (indent > 0) {
          out.append(": ", 2);
        } else {
          out.push_back(':');
        }
        value.writeValue(out, indent, depth + 1, blocks);
      }
      pad(out, indent, depth);
      out.push_back('}');
      return;
    }
  }
}

std::string JSON::quote(std::string_view s) {
  std::string out;
  out.reserve(s.size() + 2);
  appendQuoted(out, s);
  return out;
}

namespace {

// Appends s between quotes, escaping what must be, with runs of plain bytes copied in one
// append; says whether a byte had its high bit set.
bool appendEscapedText(std::string& out, std::string_view s) {
  const char* p = s.data();
  const char* end = p + s.size();
  bool high = false;
  out.push_back('"');
  const char* run = p;
  while (p < end) {
    p = ByteScan::skipVerbatim(p, end, &high);
    if (p == end) break;
    auto c = static_cast<unsigned char>(*p);
    if (kEscape.needs[c]) {
      out.append(run, p - run);
      appendEscaped(out, c);
      run = p + 1;
    } else {
      high |= c >= 0x80;
    }
    ++p;
  }
  out.append(run, p - run);
  out.push_back('"');
  return high;
}

}  // namespace

namespace JSONDetail {

void appendQuotedUTF8(std::string& out, std::string_view text) {
  appendEscapedText(out, text);
}

}  // namespace JSONDetail

// Ill-formed UTF-8 (possible only in strings built by the program itself, e.g. from file names)
// comes out as U+FFFD so the text is always valid; the check runs only over strings that hold a
// non-ASCII byte.
void JSON::appendQuoted(std::string& out, std::string_view s) {
  const size_t start = out.size();
  if (appendEscapedText(out, s) && !isValidUTF8(s)) {
    out.resize(start);
    appendEscapedText(out, toValidUTF8(s));
  }
}

std::string JSON::formatNumber(double v) {
  std::string out;
  appendNumber(out, v);
  return out;
}

void JSON::appendNumber(std::string& out, double v) {
  if (!std::isfinite(v)) {
    out.append("null", 4);
    return;
  }
  double a = std::fabs(v);
  if (a < 9.2e18) {
    auto i = static_cast<int64_t>(v);
    if (static_cast<double>(i) == v) {
      appendInt(out, i);
      return;
    }
  } else if (a < 1e21) {
    // Every double this large is integral and below 2^70: print all of its digits exactly.
    auto n = static_cast<unsigned __int128>(a);
    char buf[32];
    char* p = buf + sizeof buf;
    do {
      *--p = static_cast<char>('0' + static_cast<int>(n % 10));
      n /= 10;
    } while (n);
    if (v < 0) *--p = '-';
    out.append(p, buf + sizeof buf - p);
    return;
  }
  appendShortest(out, v);
}

bool operator==(const JSON& a, const JSON& b) {
  if (a.kind() != b.kind()) return false;
  switch (a.kind()) {
    case JSON::Kind::boolean:
      return a.isTrue() == b.isTrue();
    case JSON::Kind::number:
      return *a.number() == *b.number();
    case JSON::Kind::string:
      return *a.string() == *b.string();
    case JSON::Kind::array:
      return a.list() == b.list();
    case JSON::Kind::object:
      return *a.members() == *b.members();
    default:
      return true;
  }
}

bool isValidUTF8(std::string_view bytes) {
  auto p = reinterpret_cast<const unsigned char*>(bytes.data());
  auto end = p + bytes.size();
  while (p < end) {
    p = reinterpret_cast<const unsigned char*>(
        ByteScan::skipASCII(reinterpret_cast<const char*>(p), reinterpret_cast<const char*>(end)));
    if (p == end) break;
    if (*p < 0x80) {
      ++p;
      continue;
    }
    int bad = 0;
    int len = utf8SequenceLength(p, end, &bad);
    if (!len) return false;
    p += len;
  }
  return true;
}

std::string toValidUTF8(std::string_view bytes) {
  if (isValidUTF8(bytes)) return std::string(bytes);
  std::string out;
  out.reserve(bytes.size() + 8);
  auto begin = reinterpret_cast<const unsigned char*>(bytes.data());
  auto p = begin;
  auto end = begin + bytes.size();
  auto run = p;
  while (p < end) {
    if (*p < 0x80) {
      ++p;
      continue;
    }
    int bad = 0;
    int len = utf8SequenceLength(p, end, &bad);
    if (len) {
      p += len;
      continue;
    }
    out.append(reinterpret_cast<const char*>(run), p - run);
    out.append(kReplacement, 3);
    p += bad;
    run = p;
  }
  out.append(reinterpret_cast<const char*>(run), p - run);
  return out;
}

}  // namespace vorn
