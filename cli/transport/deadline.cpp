#include "transport/deadline.h"

#include <algorithm>
#include <climits>
#include <cmath>

#include "json/decimal.h"
#include "json/json.h"
#include "transport/transport.h"

namespace vorn {

namespace {

// Written by the entry before any thread exists; read-only afterwards.
std::optional<double> exchangeTimeout;

// Beyond this a limit is as good as none, and the clock arithmetic stays far from overflow.
constexpr double longestWaitSeconds = 1e9;

}  // namespace

namespace Transport {

std::optional<double> parseTimeout(std::string_view text) {
  size_t digits = 0, points = 0;
  for (char c : text) {
    if (c >= '0' && c <= '9') {
      ++digits;
    } else if (c == '.') {
      ++points;
    } else {
      return std::nullopt;
    }
  }
  if (digits == 0 || points > 1) return std::nullopt;
  double seconds = 0;
  const char* end = text.data() + text.size();
  if (Decimal::toDouble(text.data(), end, seconds) != end) return std::nullopt;
  if (!std::isfinite(seconds) || seconds <= 0) return std::nullopt;
  return seconds;
}

void setTimeout(std::optional<double> seconds) {
  exchangeTimeout = seconds;
}

std::optional<double> timeout() {
  return exchangeTimeout;
}

std::string timedOutText(double seconds) {
  return "timed out after " + JSON::formatNumber(seconds) + "s";
}

}  // namespace Transport

Deadline::Deadline(std::optional<double> seconds) : seconds_(seconds) {
  if (!seconds_) return;
  std::chrono::duration<double> wait(std::min(*seconds_, longestWaitSeconds));
  at_ = std::chrono::steady_clock::now() +
        std::chrono::duration_cast<std::chrono::steady_clock::duration>(wait);
}

int Deadline::pollMs() const {
  if (!seconds_) return -1;
  auto left = at_ - std::chrono::steady_clock::now();
  if (left <= std::chrono::steady_clock::duration::zero()) {
    throw TransportError{Transport::timedOutText(*seconds_)};
  }
  auto ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
  return static_cast<int>(std::min<decltype(ms)>(ms, INT_MAX));
}

}  // namespace vorn
