// What the fuzz targets share: checking an invariant (a broken one prints what broke and traps,
// which libFuzzer reports as a crash and saves the input) and cutting an input into words.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace vorn::fuzz {

[[noreturn]] inline void broken(const char* invariant, std::string_view detail = {}) {
  std::fprintf(stderr, "\ninvariant broken: %s\n", invariant);
  if (!detail.empty()) {
    std::fwrite(detail.data(), 1, detail.size(), stderr);
    std::fputc('\n', stderr);
  }
  __builtin_trap();
}

inline void check(bool holds, const char* invariant, std::string_view detail = {}) {
  if (!holds) broken(invariant, detail);
}

inline std::string_view text(const uint8_t* data, size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// The pieces between separators, empty ones included ("a  b" is "a", "", "b").
inline std::vector<std::string> split(std::string_view input, char separator) {
  std::vector<std::string> words;
  size_t start = 0;
  while (true) {
    size_t at = input.find(separator, start);
    if (at == std::string_view::npos) {
      words.emplace_back(input.substr(start));
      return words;
    }
    words.emplace_back(input.substr(start, at - start));
    start = at + 1;
  }
}

}  // namespace vorn::fuzz
