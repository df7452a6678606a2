// The one value type for everything the CLI sends, receives and prints.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace vorn {

class BlockWriter;

// Thrown by JSON::parse; the message ends with " at offset N".
struct JSONParseError {
  std::string message;
  bool operator==(const JSONParseError&) const = default;
};

// An order-preserving JSON value: objects are lists of pairs, duplicates kept.
class JSON {
 public:
  enum class Kind { boolean, number, string, array, object, null };
  using Array = std::vector<JSON>;
  using Member = std::pair<std::string, JSON>;
  using Object = std::vector<Member>;

  JSON() = default;  // null
  JSON(std::nullptr_t) {}
  JSON(bool b) : v_(b) {}
  JSON(double d) : v_(d) {}
  template <typename T,
            std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>, int> = 0>
  JSON(T i) : v_(static_cast<double>(i)) {}
  JSON(std::string s) : v_(std::move(s)) {}
  JSON(std::string_view s) : v_(std::string(s)) {}
  JSON(const char* s) : v_(std::string(s)) {}
  JSON(Array a) : v_(std::move(a)) {}
  JSON(Object o) : v_(std::move(o)) {}

  static JSON array(Array a = {}) { return JSON(std::move(a)); }
  static JSON object(Object o = {}) { return JSON(std::move(o)); }

  Kind kind() const;
  bool isNull() const { return kind() == Kind::null; }

  // Accessors never fail: a wrong case gives the absent answer.
  const JSON* get(std::string_view key) const;  // last matching pair, or nullptr
  const Array& list() const;                    // empty unless an array
  bool isTrue() const;                          // only bool true
  std::optional<std::string> error() const;     // last "error" pair, when a string
  std::optional<double> number() const;
  std::optional<int64_t> integer() const;  // integral and |v| < 9e15
  const std::string* string() const;       // the text, or nullptr
  const Object* members() const;           // the pairs, or nullptr

  // Mutable access for building values in place; nullptr unless the value is of that case.
  Array* mutableArray();
  Object* mutableObject();

  // Adds or replaces keys of an object; see json.cpp for the two directions.
  JSON merging(const Object& pairs, bool prepend) const;

  std::string serialized(int indent) const;
  void write(std::string& out, int indent, int depth) const;

  static std::string quote(std::string_view s);
  static void appendQuoted(std::string& out, std::string_view s);
  static std::string formatNumber(double v);
  static void appendNumber(std::string& out, double v);

  // Throws JSONParseError.
  static JSON parse(std::string_view text);
  // The text of parse(text).serialized(indent), written as the text is read, without building
  // the value (for printing large replies). Throws JSONParseError.
  static std::string reformat(std::string_view text, int indent);
  // The same text, as write(out, indent, depth) of the parsed value would append it, added to
  // `out` and handed on a block at a time, so that it is never held whole. The text is read
  // twice: nothing is added unless all of it parses. Throws JSONParseError.
  static void reformatTo(std::string_view text, int indent, int depth, BlockWriter& out);

  friend bool operator==(const JSON& a, const JSON& b);

 private:
  std::variant<std::nullptr_t, bool, double, std::string, Array, Object> v_;
};

bool operator==(const JSON& a, const JSON& b);

// True when the bytes are well-formed UTF-8 (no surrogates, nothing above U+10FFFF).
bool isValidUTF8(std::string_view bytes);

// The bytes decoded as UTF-8, each invalid sequence (a maximal ill-formed subpart) replaced by
// U+FFFD. Valid input comes back unchanged.
std::string toValidUTF8(std::string_view bytes);

}  // namespace vorn
