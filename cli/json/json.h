// The one value type for everything the CLI sends, receives and prints.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace vorn {

class BlockWriter;

// Thrown by JSON::parse; the message ends with " at offset N".
struct JSONParseError {
  std::string message;
  bool operator==(const JSONParseError&) const = default;
};

// What is known of a text's bytes before it is read as JSON. A reply is made valid UTF-8 as a
// whole when it arrives, so its strings need no check one by one.
enum class TextBytes { unchecked, validUTF8 };

// An order-preserving JSON value: objects are lists of pairs, duplicates kept.
//
// A value takes 16 bytes: a tag, and a bool, a double, a string of up to 14 bytes, or a pointer
// to the storage of a longer string, an array or an object. So a parsed reply takes a small
// multiple of its text even when it is a long array of one-digit numbers.
class JSON {
 public:
  enum class Kind { boolean, number, string, array, object, null };
  using Array = std::vector<JSON>;
  using Member = std::pair<std::string, JSON>;
  using Object = std::vector<Member>;

  JSON() noexcept { setTag(Tag::null); }
  JSON(std::nullptr_t) noexcept : JSON() {}
  JSON(bool b) noexcept;
  JSON(double d) noexcept;
  template <typename T,
            std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>, int> = 0>
  JSON(T i) noexcept : JSON(static_cast<double>(i)) {}
  JSON(std::string_view s);
  JSON(const std::string& s) : JSON(std::string_view(s)) {}
  JSON(const char* s) : JSON(std::string_view(s)) {}
  JSON(Array a);
  JSON(Object o);

  JSON(const JSON& other);
  JSON(JSON&& other) noexcept;
  JSON& operator=(const JSON& other);
  JSON& operator=(JSON&& other) noexcept;
  ~JSON() {
    if (ownsStorage()) release();
  }

  static JSON array(Array a = {}) { return JSON(std::move(a)); }
  static JSON object(Object o = {}) { return JSON(std::move(o)); }

  Kind kind() const;
  bool isNull() const { return tag() == Tag::null; }

  // Accessors never fail: a wrong case gives the absent answer.
  const JSON* get(std::string_view key) const;  // last matching pair, or nullptr
  const Array& list() const;                    // empty unless an array
  bool isTrue() const;                          // only bool true
  std::optional<std::string> error() const;     // last "error" pair, when a string
  std::optional<double> number() const;
  std::optional<int64_t> integer() const;               // integral and |v| < 9e15
  std::optional<std::string_view> string() const;       // the text, or none
  const Object* members() const;                        // the pairs, or nullptr

  // Mutable access for building values in place; nullptr unless the value is of that case.
  Array* mutableArray();
  Object* mutableObject();

  // Adds or replaces keys of an object; see json.cpp for the two directions.
  JSON merging(const Object& pairs, bool prepend) const;

  std::string serialized(int indent) const;
  void write(std::string& out, int indent, int depth) const;
  // The same text, handed on a block at a time (for printing large values).
  void writeTo(BlockWriter& out, int indent, int depth) const;
  // The value as a command prints it: at indent 2 with a line feed, handed to `write` a block at
  // a time, so that a large value is never held as text whole.
  void printTo(const std::function<void(std::string_view)>& write) const;

  static std::string quote(std::string_view s);
  static void appendQuoted(std::string& out, std::string_view s);
  static std::string formatNumber(double v);
  static void appendNumber(std::string& out, double v);

  // Throws JSONParseError.
  static JSON parse(std::string_view text, TextBytes bytes = TextBytes::unchecked);
  // The text of parse(text).serialized(indent), written as the text is read, without building
  // the value (for printing large replies). Throws JSONParseError.
  static std::string reformat(std::string_view text, int indent);
  // The same text, as write(out, indent, depth) of the parsed value would append it, added to
  // `out` and handed on a block at a time, so that it is never held whole. The text is read
  // twice: nothing is added unless all of it parses. Throws JSONParseError.
  static void reformatTo(std::string_view text, int indent, int depth, BlockWriter& out,
                         TextBytes bytes = TextBytes::unchecked);

  friend bool operator==(const JSON& a, const JSON& b);
  friend class TreeSink;

 private:
  // The layout of the 16 bytes: the payload in bytes 0 to 7 (or a short string's text in bytes
  // 0 to 13), a long string's length in bytes 8 to 13, a short string's length in byte 14 and
  // the tag in byte 15. An empty array or object holds no storage (a null pointer). The high bit
  // of byte 15 marks a string read from JSON text that printed between quotes as it stands is
  // its JSON text again (no byte to escape, valid UTF-8), so it is written without a look.
  enum class Tag : uint8_t { null, boolean, number, shortString, longString, array, object };
  static constexpr size_t kShortString = 14;
  static constexpr unsigned char kVerbatim = 0x80;

  Tag tag() const { return static_cast<Tag>(bytes_[15] & ~kVerbatim); }
  bool ownsStorage() const { return tag() >= Tag::longString; }
  void setTag(Tag t) { bytes_[15] = static_cast<unsigned char>(t); }
  bool verbatim() const { return bytes_[15] & kVerbatim; }
  void markVerbatim() { bytes_[15] |= kVerbatim; }
  template <typename T>
  T* pointer() const;
  void setPointer(const void* p);
  void setString(std::string_view s);
  void release() noexcept;
  void copyFrom(const JSON& other);
  void writeValue(std::string& out, int indent, int depth, BlockWriter* blocks) const;

  alignas(8) unsigned char bytes_[16];
};

static_assert(sizeof(JSON) == 16, "a JSON value takes 16 bytes");

bool operator==(const JSON& a, const JSON& b);

// True when the bytes are well-formed UTF-8 (no surrogates, nothing above U+10FFFF).
bool isValidUTF8(std::string_view bytes);

// The bytes decoded as UTF-8, each invalid sequence (a maximal ill-formed subpart) replaced by
// U+FFFD. Valid input comes back unchanged.
std::string toValidUTF8(std::string_view bytes);

}  // namespace vorn
