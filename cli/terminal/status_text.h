// The words of the status line that a long wait shows at the terminal.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace vorn {

// What one wait is for, as the status line names it.
struct WaitSpec {
  std::string what;  // "waiting for instance abc123 to answer", "1 of 2 answered; waiting for ab12"
  std::optional<std::chrono::milliseconds> limit;  // it gives up by itself after this long
  bool timeoutHint = false;                        // VORN_TIMEOUT would bound it, and is unset
};

namespace StatusText {

// "vorn: <what> (3.2s) - Ctrl-C to stop, VORN_TIMEOUT=<seconds> to bound waits";
// with a limit the time reads "(3.2s of 10s)" and the VORN_TIMEOUT advice is left out. Fitted
// to a terminal of `columns` columns: a long <what> loses its middle ("..."), then the advice
// goes, and the line never takes the last column (so it never wraps).
std::string line(const WaitSpec& wait, std::chrono::milliseconds elapsed, size_t columns);
// A duration in seconds as few digits show it: 10000 ms "10s", 250 ms "0.25s".
std::string seconds(std::chrono::milliseconds duration);
// Elapsed time in tenths of a second: 3249 ms "3.2s".
std::string tenths(std::chrono::milliseconds duration);
// The text with every control character (C0, DEL, C1) shown as '?', so that text an instance
// sent is shown and never interpreted by the terminal. Invalid UTF-8 bytes become '?' too.
std::string printable(std::string_view text);
// The first columns-1 characters of the line (code points), so that it never wraps and one
// carriage return and erase take all of it away again. The line is printable text.
std::string fitted(std::string_view line, size_t columns);

}  // namespace StatusText
}  // namespace vorn
