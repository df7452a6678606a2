#include "transport/reply_bytes.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace vorn {

ReplyBytes::ReplyBytes(std::string_view text) {
  reserve(text.size());
  if (!text.empty()) std::memcpy(spare(), text.data(), text.size());
  commit(text.size());
}

ReplyBytes::ReplyBytes(ReplyBytes&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)),
      start_(std::exchange(other.start_, 0)),
      end_(std::exchange(other.end_, 0)),
      capacity_(std::exchange(other.capacity_, 0)) {}

ReplyBytes& ReplyBytes::operator=(ReplyBytes&& other) noexcept {
  if (this != &other) {
    std::free(data_);
    data_ = std::exchange(other.data_, nullptr);
    start_ = std::exchange(other.start_, 0);
    end_ = std::exchange(other.end_, 0);
    capacity_ = std::exchange(other.capacity_, 0);
  }
  return *this;
}

ReplyBytes::~ReplyBytes() {
  std::free(data_);
}

void ReplyBytes::reserve(size_t total) {
  if (total <= capacity_ && data_ != nullptr) return;
  // realloc(nullptr, 0) may give nullptr; one byte keeps data() a real pointer.
  size_t want = total == 0 ? 1 : total;
  void* grown = std::realloc(data_, want);
  if (grown == nullptr) throw std::bad_alloc();
  data_ = static_cast<char*>(grown);
  capacity_ = want;
}

}  // namespace vorn
