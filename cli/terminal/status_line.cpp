#include "terminal/status_line.h"

#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "terminal/emit.h"

namespace vorn {

namespace {

// Back to the start of the line, and clear to its end.
constexpr std::string_view eraseLine = "\r\033[K";
constexpr size_t defaultColumns = 80;

// Set while the terminal shows the line, for the signal handler below.
std::atomic<bool> lineVisible{false};

// Ctrl-C while the line shows: take it away, then end as the signal would have.
extern "C" void eraseAndEnd(int sig) {
  if (lineVisible.load(std::memory_order_relaxed)) {
    ssize_t ignored = ::write(2, eraseLine.data(), eraseLine.size());
    (void)ignored;
  }
  ::signal(sig, SIG_DFL);
  ::raise(sig);
}

// Only signals that would end the process as they stand; one the caller ignores stays ignored.
void eraseOnInterrupt() {
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction old {};
    if (::sigaction(sig, nullptr, &old) != 0 || old.sa_handler != SIG_DFL) continue;
    struct sigaction now {};
    now.sa_handler = eraseAndEnd;
    sigemptyset(&now.sa_mask);
    ::sigaction(sig, &now, nullptr);
  }
}

size_t terminalColumns() {
  struct winsize size {};
  if (::ioctl(2, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  return defaultColumns;
}

}  // namespace

StatusLine::StatusLine(Sink sink, Width width, bool outShared, Timing timing)
    : sink_(std::move(sink)), width_(std::move(width)), outShared_(outShared), timing_(timing) {}

StatusLine::~StatusLine() {
  stop();
}

std::unique_ptr<StatusLine> StatusLine::forTerminal(const std::string* term) {
  if (!term || term->empty() || *term == "dumb" || !::isatty(2)) return nullptr;
  eraseOnInterrupt();
  auto line = std::make_unique<StatusLine>(emit, terminalColumns, ::isatty(1) != 0, Timing{});
  return line;
}

void StatusLine::write(int fd, std::string_view text) {
  if (text.empty()) return;
  std::lock_guard<std::mutex> hold(lock_);
  erase();
  sink_(fd, text);
  written(fd, text);
}

void StatusLine::written(int fd, std::string_view text) {
  if (fd == 2 || outShared_) atLineStart_ = text.back() == '\n';
}

uint64_t StatusLine::begin(WaitSpec wait) {
  std::lock_guard<std::mutex> hold(lock_);
  if (stopping_) return 0;
  uint64_t number = next_++;
  waits_.push_back(Active{number, std::move(wait), std::chrono::steady_clock::now()});
  // The ticker starts with the first wait, so a command that waits for nothing starts no thread.
  if (!ticker_.joinable()) {
    try {
      ticker_ = std::thread([this] { tick(); });
    } catch (...) {
      // No thread, no status line; the command itself goes on.
    }
  }
  changed_.notify_all();
  return number;
}

void StatusLine::describe(uint64_t wait, std::string what) {
  std::lock_guard<std::mutex> hold(lock_);
  for (Active& active : waits_) {
    if (active.number == wait) active.wait.what = std::move(what);
  }
}

void StatusLine::end(uint64_t wait) {
  std::lock_guard<std::mutex> hold(lock_);
  waits_.erase(std::remove_if(waits_.begin(), waits_.end(),
                              [wait](const Active& active) { return active.number == wait; }),
               waits_.end());
  if (waits_.empty()) erase();
  changed_.notify_all();
}

void StatusLine::stop() {
  {
    std::lock_guard<std::mutex> hold(lock_);
    stopping_ = true;
    waits_.clear();
    erase();
    changed_.notify_all();
  }
  if (ticker_.joinable()) ticker_.join();
}

void StatusLine::tick() {
  std::unique_lock<std::mutex> hold(lock_);
  while (!stopping_) {
    if (waits_.empty()) {
      changed_.wait(hold);
      continue;
    }
    const Active& oldest = waits_.front();
    auto due = oldest.since + timing_.showAfter;
    if (std::chrono::steady_clock::now() < due) {
      changed_.wait_until(hold, due);
      continue;
    }
    draw(oldest);
    changed_.wait_for(hold, timing_.every);
  }
}

void StatusLine::draw(const Active& active) {
  // A line that the program has left open is not written over.
  if (!atLineStart_) return;
  auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - active.since);
  std::string text = "\r";
  text += StatusText::line(active.wait, elapsed, width_());
  text += "\033[K";
  sink_(2, text);
  shown_ = true;
  lineVisible.store(true, std::memory_order_relaxed);
}

void StatusLine::erase() {
  if (!shown_) return;
  sink_(2, eraseLine);
  shown_ = false;
  lineVisible.store(false, std::memory_order_relaxed);
}

Waiting::Waiting(StatusLine* line, WaitSpec wait) : line_(line) {
  if (line_) number_ = line_->begin(std::move(wait));
}

Waiting::~Waiting() {
  if (line_) line_->end(number_);
}

void Waiting::describe(std::string what) {
  if (line_) line_->describe(number_, std::move(what));
}

}  // namespace vorn
