#include "transport/reply_bytes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

namespace vorn {
namespace {

// Receives `text` the way the transport does: into the spare room, growing when it is full.
ReplyBytes received(const std::string& text, size_t piece) {
  ReplyBytes bytes;
  bytes.reserve(4);
  for (size_t at = 0; at < text.size();) {
    if (bytes.spareSize() == 0) bytes.reserve(2 * bytes.size());
    size_t n = std::min({piece, bytes.spareSize(), text.size() - at});
    std::memcpy(bytes.spare(), text.data() + at, n);
    bytes.commit(n);
    at += n;
  }
  return bytes;
}

TEST(ReplyBytes, GrowingKeepsEveryByte) {
  std::string text;
  for (int i = 0; i < 100000; ++i)
    text += static_cast<char>('a' + i % 26);
  EXPECT_EQ(received(text, 7).view(), text);
  EXPECT_EQ(received(text, 65536).view(), text);
}

TEST(ReplyBytes, FrontAndEndAreCutWithoutMoving) {
  ReplyBytes bytes("header\r\n\r\nbody and more");
  const char* body = bytes.data() + 10;
  bytes.dropFront(10);
  EXPECT_EQ(bytes.data(), body);
  EXPECT_EQ(bytes, "body and more");
  bytes.truncate(4);
  EXPECT_EQ(bytes, "body");
  EXPECT_EQ(bytes.str(), "body");
}

TEST(ReplyBytes, MovingHandsTheBlockOver) {
  ReplyBytes a("text");
  const char* block = a.data();
  ReplyBytes b(std::move(a));
  EXPECT_EQ(b.data(), block);
  EXPECT_EQ(b, "text");
  ReplyBytes c;
  c = std::move(b);
  EXPECT_EQ(c, "text");
  EXPECT_TRUE(ReplyBytes().empty());
  EXPECT_EQ(ReplyBytes(""), "");
}

}  // namespace
}  // namespace vorn
