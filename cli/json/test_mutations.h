// Random edits of a JSON document, for tests that feed the parser damaged text.
#pragma once

#include <random>
#include <string>

namespace vorn {

// `seed` with up to `maxEdits` random edits: a byte replaced, bytes removed, a byte of the
// seed inserted, or the text cut short.
inline std::string mutated(const std::string& seed, std::mt19937& rng, int minEdits, int maxEdits) {
  std::string text = seed;
  int edits = minEdits + static_cast<int>(rng() % static_cast<unsigned>(maxEdits - minEdits + 1));
  for (int k = 0; k < edits && !text.empty(); ++k) {
    size_t at = rng() % text.size();
    switch (rng() % 4) {
      case 0:
        text[at] = static_cast<char>(rng() & 0xFF);
        break;
      case 1:
        text.erase(at, 1 + rng() % 3);
        break;
      case 2:
        text.insert(at, 1, seed[rng() % seed.size()]);
        break;
      default:
        text.resize(at);
    }
  }
  return text;
}

}  // namespace vorn
