// Must not compile for the minimum macOS: Apple's C++ library has no floating-point to_chars
// there. scripts/macos-build.sh compiles it to show that the macOS build checks availability.
#include <charconv>

int main() {
  char text[32];
  std::to_chars_result end = std::to_chars(text, text + sizeof text, 0.1);
  return end.ptr == text;
}
