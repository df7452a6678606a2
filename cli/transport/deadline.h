// How long one exchange with an instance may take. By default there is no limit: the client
// waits as long as an instance keeps the connection open. VORN_TIMEOUT sets one limit for
// connect, write and read together.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace vorn {

namespace Transport {

// A VORN_TIMEOUT value: a positive decimal number of seconds ("2", "0.5", ".25"), without
// sign, exponent or spaces. Nothing when the text is not one.
std::optional<double> parseTimeout(std::string_view text);
// The limit of every exchange that starts afterwards; none waits forever. The entry sets it
// once, before any request is made or any thread is started; after that it is only read.
void setTimeout(std::optional<double> seconds);
std::optional<double> timeout();
// "timed out after <N>s", N written as a JSON number ("0.5", "2").
std::string timedOutText(double seconds);

}  // namespace Transport

// The moment by which one exchange must be over, fixed when the exchange starts.
class Deadline {
 public:
  explicit Deadline(std::optional<double> seconds);

  // How long poll() may wait: -1 without a limit, else the milliseconds left, rounded up.
  // Throws TransportError "timed out after <N>s" once the moment has passed.
  int pollMs() const;

 private:
  std::optional<double> seconds_;
  std::chrono::steady_clock::time_point at_;
};

}  // namespace vorn
