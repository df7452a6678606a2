// Text handed on a block at a time: a writer appends to text(), calls flushIfFull() where a
// block may end and flush() when it is done. Large output thus leaves in a few big writes
// without ever being held whole, and small output in one.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

namespace vorn {

class BlockWriter {
 public:
  static constexpr size_t defaultBlockBytes = size_t{256} << 10;

  explicit BlockWriter(std::function<void(std::string_view)> write,
                       size_t blockBytes = defaultBlockBytes)
      : write_(std::move(write)), blockBytes_(blockBytes) {
    text_.reserve(blockBytes_ + blockBytes_ / 4);
  }

  std::string& text() { return text_; }
  void flushIfFull() {
    if (text_.size() >= blockBytes_) flush();
  }
  void flush() {
    if (!text_.empty()) write_(text_);
    text_.clear();
  }

 private:
  std::function<void(std::string_view)> write_;
  size_t blockBytes_;
  std::string text_;
};

}  // namespace vorn
