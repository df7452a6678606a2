#include "terminal/status_line.h"

#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vorn {
namespace {

using namespace std::chrono_literals;

constexpr std::string_view erase = "\r\033[K";

// Everything the status line wrote, in order, as (fd, text) pairs.
struct Screen {
  std::mutex lock;
  std::vector<std::pair<int, std::string>> writes;

  StatusLine::Sink sink() {
    return [this](int fd, std::string_view text) {
      std::lock_guard<std::mutex> hold(lock);
      writes.emplace_back(fd, std::string(text));
    };
  }
  std::vector<std::pair<int, std::string>> seen() {
    std::lock_guard<std::mutex> hold(lock);
    return writes;
  }
  size_t draws() {
    size_t n = 0;
    for (const auto& [fd, text] : seen())
      n += fd == 2 && text.rfind("\rvorn: ", 0) == 0;
    return n;
  }
  // Polls until the screen holds at least `count` drawings of the line, or two seconds pass.
  bool waitForDraws(size_t count) {
    auto deadline = std::chrono::steady_clock::now() + 2s;
    while (std::chrono::steady_clock::now() < deadline) {
      if (draws() >= count) return true;
      std::this_thread::sleep_for(2ms);
    }
    return false;
  }
};

const StatusLine::Timing fast{20ms, 5ms};

// Every write of the program came after the erase of a line that was shown, and the line is
// gone at the end.
void expectNeverWrittenOver(Screen& screen) {
  bool shown = false;
  for (const auto& [fd, text] : screen.seen()) {
    if (fd == 2 && text.rfind("\rvorn: ", 0) == 0) {
      shown = true;
    } else if (text == erase) {
      shown = false;
    } else {
      EXPECT_FALSE(shown) << "written over the status line: " << text;
    }
  }
  EXPECT_FALSE(shown);
}

TEST(StatusLine, AShortWaitShowsNothingAndWritesPassStraightThrough) {
  Screen screen;
  StatusLine line(screen.sink(), [] { return size_t{200}; }, true, {10s, 5ms});
  {
    Waiting waiting(&line, {"waiting for instance a1 to answer", std::nullopt, true});
    line.write(1, "row\n");
  }
  line.write(2, "note\n");
  line.stop();
  EXPECT_EQ(screen.seen(), (std::vector<std::pair<int, std::string>>{{1, "row\n"}, {2, "note\n"}}));
}

TEST(StatusLine, ALongWaitShowsTheLineAndErasesItWhenItEnds) {
  Screen screen;
  StatusLine line(
      screen.sink(), [] { return size_t{200}; }, true, fast);
  {
    Waiting waiting(&line, {"waiting for instance a1 to answer", std::nullopt, true});
    ASSERT_TRUE(screen.waitForDraws(2));
  }
  auto seen = screen.seen();
  ASSERT_FALSE(seen.empty());
  EXPECT_EQ(seen.back(), (std::pair<int, std::string>{2, std::string(erase)}));
  const std::string& first = seen.front().second;
  EXPECT_EQ(first.rfind("\rvorn: waiting for instance a1 to answer (0.", 0), 0u) << first;
  EXPECT_NE(first.find(") - Ctrl-C to stop, VORN_TIMEOUT=<seconds> to bound waits\033[K"),
            std::string::npos)
      << first;
  // Nothing more is drawn once the wait is over.
  size_t drawn = screen.draws();
  std::this_thread::sleep_for(40ms);
  EXPECT_EQ(screen.draws(), drawn);
  line.stop();
}

TEST(StatusLine, OutputErasesTheLineFirstAndTheLineComesBack) {
  Screen screen;
  StatusLine line(
      screen.sink(), [] { return size_t{200}; }, true, fast);
  Waiting waiting(&line, {"waiting for instance a1 to answer", std::nullopt, false});
  ASSERT_TRUE(screen.waitForDraws(1));
  line.write(1, "row 1\n");
  size_t drawn = screen.draws();
  ASSERT_TRUE(screen.waitForDraws(drawn + 1));
  line.stop();
  expectNeverWrittenOver(screen);
}

TEST(StatusLine, ALineLeftOpenIsNotWrittenOver) {
  Screen screen;
  StatusLine line(
      screen.sink(), [] { return size_t{200}; }, true, fast);
  line.write(1, "partial");
  {
    Waiting waiting(&line, {"waiting for instance a1 to answer", std::nullopt, false});
    std::this_thread::sleep_for(60ms);
    EXPECT_EQ(screen.draws(), 0u);
    line.write(1, " done\n");
    EXPECT_TRUE(screen.waitForDraws(1));
  }
  line.stop();
}

TEST(StatusLine, StandardOutputElsewhereDoesNotHoldTheLineBack) {
  Screen screen;
  StatusLine line(
      screen.sink(), [] { return size_t{200}; }, false, fast);
  line.write(1, "partial");
  Waiting waiting(&line, {"waiting for instance a1 to answer", std::nullopt, false});
  EXPECT_TRUE(screen.waitForDraws(1));
  line.stop();
}

TEST(StatusLine, TheOldestWaitIsShownAndItsWordsFollowDescribe) {
  Screen screen;
  StatusLine line(
      screen.sink(), [] { return size_t{200}; }, true, fast);
  Waiting outer(&line, {"0 of 2 answered; waiting for a1, b2", std::nullopt, false});
  {
    Waiting inner(&line, {"waiting for something inside", std::nullopt, false});
    ASSERT_TRUE(screen.waitForDraws(1));
  }
  outer.describe("1 of 2 answered; waiting for b2");
  size_t drawn = screen.draws();
  ASSERT_TRUE(screen.waitForDraws(drawn + 2));
  line.stop();
  auto seen = screen.seen();
  bool innerShown = false;
  std::string last;
  for (const auto& [fd, text] : seen) {
    if (text.find("something inside") != std::string::npos) innerShown = true;
    if (text.rfind("\rvorn: ", 0) == 0) last = text;
  }
  EXPECT_FALSE(innerShown);
  EXPECT_EQ(last.rfind("\rvorn: 1 of 2 answered; waiting for b2 (", 0), 0u) << last;
  EXPECT_EQ(seen.back().second, erase);
}

TEST(StatusLine, StopErasesAndLaterWaitsShowNothing) {
  Screen screen;
  StatusLine line(
      screen.sink(), [] { return size_t{200}; }, true, fast);
  Waiting waiting(&line, {"waiting for instance a1 to answer", std::nullopt, false});
  ASSERT_TRUE(screen.waitForDraws(1));
  line.stop();
  EXPECT_EQ(screen.seen().back().second, erase);
  size_t count = screen.seen().size();
  Waiting later(&line, {"waiting for instance b2 to answer", std::nullopt, false});
  std::this_thread::sleep_for(40ms);
  EXPECT_EQ(screen.seen().size(), count);
}

TEST(StatusLine, ManyThreadsWriteWholeLines) {
  Screen screen;
  StatusLine line(screen.sink(), [] { return size_t{200}; }, true, {1ms, 1ms});
  Waiting waiting(&line, {"waiting for the writers", std::nullopt, false});
  std::vector<std::thread> writers;
  for (int t = 0; t < 4; ++t) {
    writers.emplace_back([&line, t] {
      for (int i = 0; i < 50; ++i) {
        line.write(1, "writer " + std::to_string(t) + " line " + std::to_string(i) + "\n");
        if (i % 10 == 0) std::this_thread::sleep_for(1ms);
      }
    });
  }
  for (auto& writer : writers)
    writer.join();
  line.stop();
  size_t rows = 0;
  for (const auto& [fd, text] : screen.seen())
    rows += fd == 1;
  EXPECT_EQ(rows, 200u);
  expectNeverWrittenOver(screen);
}

}  // namespace
}  // namespace vorn
