// The status line: one line on standard error that says what a long wait is waiting for.
//
// A wait that has lasted about a second shows "vorn: waiting for ... (1.0s) - Ctrl-C to stop",
// brought up to date every 200 ms by a ticker thread, and erased completely before anything
// else is printed and when the wait ends, so the output looks as it would without it. Every
// write of the program goes through write() here, under the same lock as the status line, so
// the two never interleave. The entry makes one only when standard error is a terminal.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "terminal/status_text.h"

namespace vorn {

class StatusLine {
 public:
  // Where the bytes go (fd 1 or 2, and the text), and how wide the terminal is.
  using Sink = std::function<void(int fd, std::string_view text)>;
  using Width = std::function<size_t()>;
  struct Timing {
    std::chrono::milliseconds showAfter{1000};
    std::chrono::milliseconds every{200};
  };

  // `outShared`: standard output goes to the same terminal, so a line it leaves open keeps the
  // status line away until the line is finished.
  StatusLine(Sink sink, Width width, bool outShared, Timing timing);
  ~StatusLine();
  StatusLine(const StatusLine&) = delete;
  StatusLine& operator=(const StatusLine&) = delete;

  // The status line of this process when its standard error is a terminal and TERM names one
  // that understands erasing a line (set, and not "dumb"); nothing otherwise.
  static std::unique_ptr<StatusLine> forTerminal(const std::string* term);

  // Writes text to fd (1 or 2), erasing the status line first.
  void write(int fd, std::string_view text);

  // A wait begins; its number names it to describe() and end(). Starts the ticker on first use.
  uint64_t begin(WaitSpec wait);
  // The wait now waits for something else ("2 of 3 answered; waiting for abc123").
  void describe(uint64_t wait, std::string what);
  // The wait is over; with no other wait under way the line is erased at once.
  void end(uint64_t wait);
  // Erases the line and ends the ticker; afterwards waits show nothing. Called before the
  // process exits or replaces itself.
  void stop();

 private:
  struct Active {
    uint64_t number;
    WaitSpec wait;
    std::chrono::steady_clock::time_point since;
  };

  void tick();
  void draw(const Active& active);  // with the lock held
  void erase();                     // with the lock held
  void written(int fd, std::string_view text);

  Sink sink_;
  Width width_;
  bool outShared_;
  Timing timing_;

  std::mutex lock_;
  std::condition_variable changed_;
  std::vector<Active> waits_;  // oldest first; the oldest is the one shown
  uint64_t next_ = 1;
  bool shown_ = false;
  bool atLineStart_ = true;  // the terminal's cursor is at the start of a line
  bool stopping_ = false;
  std::thread ticker_;
};

// A wait, for as long as this value lives: `Waiting w(ctx.status, {"waiting for ..."})`. With no
// status line (not a terminal, JSON output) it does nothing.
class Waiting {
 public:
  Waiting(StatusLine* line, WaitSpec wait);
  ~Waiting();
  Waiting(const Waiting&) = delete;
  Waiting& operator=(const Waiting&) = delete;

  void describe(std::string what);

 private:
  StatusLine* line_;
  uint64_t number_ = 0;
};

}  // namespace vorn
