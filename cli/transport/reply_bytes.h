// The bytes of one reply, received into a single block that grows with realloc: a large reply
// is neither zero-filled nor copied as it grows (the system can move its pages instead), so it
// costs about its own size in memory.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vorn {

class ReplyBytes {
 public:
  ReplyBytes() = default;
  explicit ReplyBytes(std::string_view text);
  ReplyBytes(ReplyBytes&& other) noexcept;
  ReplyBytes& operator=(ReplyBytes&& other) noexcept;
  ReplyBytes(const ReplyBytes&) = delete;
  ReplyBytes& operator=(const ReplyBytes&) = delete;
  ~ReplyBytes();

  const char* data() const { return data_ + start_; }
  char* data() { return data_ + start_; }
  size_t size() const { return end_ - start_; }
  bool empty() const { return size() == 0; }
  std::string_view view() const { return {data(), size()}; }
  operator std::string_view() const { return view(); }
  std::string str() const { return std::string(view()); }

  // Makes room for at least `total` bytes in all (the bytes dropped from the front included).
  // Throws std::bad_alloc.
  void reserve(size_t total);
  // The room after the last byte, into which the next bytes are received, and taking them in.
  char* spare() { return data_ + end_; }
  size_t spareSize() const { return capacity_ - end_; }
  void commit(size_t n) { end_ += n; }

  // Forgets the first n bytes without moving the rest.
  void dropFront(size_t n) { start_ += n; }
  // Keeps only the first n bytes.
  void truncate(size_t n) { end_ = start_ + n; }

 private:
  char* data_ = nullptr;
  size_t start_ = 0;
  size_t end_ = 0;
  size_t capacity_ = 0;
};

inline bool operator==(const ReplyBytes& bytes, std::string_view text) {
  return bytes.view() == text;
}

}  // namespace vorn
