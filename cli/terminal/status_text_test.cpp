#include "terminal/status_text.h"

#include <gtest/gtest.h>

namespace vorn {
namespace {

using std::chrono::milliseconds;

TEST(StatusText, SaysWhatHowLongAndWhatToDo) {
  WaitSpec wait{"waiting for instance abc123 (pid 42) to answer", std::nullopt, true};
  EXPECT_EQ(StatusText::line(wait, milliseconds(3249), 200),
            "vorn: waiting for instance abc123 (pid 42) to answer (3.2s) - Ctrl-C to stop, "
            "VORN_TIMEOUT=<seconds> to bound waits");
  wait.timeoutHint = false;
  EXPECT_EQ(StatusText::line(wait, milliseconds(1000), 200),
            "vorn: waiting for instance abc123 (pid 42) to answer (1.0s) - Ctrl-C to stop");
}

TEST(StatusText, AWaitWithALimitSaysItAndLeavesTheAdviceOut) {
  WaitSpec wait{"waiting for instance abc123 (pid 42) to exit", milliseconds(10000), true};
  EXPECT_EQ(StatusText::line(wait, milliseconds(1200), 200),
            "vorn: waiting for instance abc123 (pid 42) to exit (1.2s of 10s) - Ctrl-C to stop");
}

TEST(StatusText, Durations) {
  EXPECT_EQ(StatusText::seconds(milliseconds(10000)), "10s");
  EXPECT_EQ(StatusText::seconds(milliseconds(250)), "0.25s");
  EXPECT_EQ(StatusText::seconds(milliseconds(2500)), "2.5s");
  EXPECT_EQ(StatusText::seconds(milliseconds(1001)), "1.001s");
  EXPECT_EQ(StatusText::tenths(milliseconds(0)), "0.0s");
  EXPECT_EQ(StatusText::tenths(milliseconds(999)), "0.9s");
  EXPECT_EQ(StatusText::tenths(milliseconds(61234)), "61.2s");
  EXPECT_EQ(StatusText::tenths(milliseconds(-5)), "0.0s");
}

TEST(StatusText, ControlCharactersAreShownNotInterpreted) {
  EXPECT_EQ(StatusText::printable("abc\x1b[2Jdef"), "abc?[2Jdef");
  EXPECT_EQ(StatusText::printable("a\rb\nc\td\x7f"), "a?b?c?d?");
  EXPECT_EQ(StatusText::printable("\xc2\x9b"
                                  "31m"),
            "?31m");  // C1 CSI
  EXPECT_EQ(StatusText::printable("caf\xc3\xa9 \xe2\x8c\x98"), "caf\xc3\xa9 \xe2\x8c\x98");
  EXPECT_EQ(StatusText::printable("bad \xff\xc3"), "bad ??");
  WaitSpec wait{"waiting for instance \x1b]0;title\x07", std::nullopt, false};
  std::string line = StatusText::line(wait, milliseconds(0), 200);
  EXPECT_EQ(line.find('\x1b'), std::string::npos);
  EXPECT_EQ(line.find('\x07'), std::string::npos);
}

TEST(StatusText, FittedLeavesTheLastColumnFree) {
  EXPECT_EQ(StatusText::fitted("abcdef", 4), "abc");
  EXPECT_EQ(StatusText::fitted("abc", 4), "abc");
  EXPECT_EQ(StatusText::fitted("\xe2\x8c\x98\xe2\x8c\x98\xe2\x8c\x98", 3),
            "\xe2\x8c\x98\xe2\x8c\x98");
  EXPECT_EQ(StatusText::fitted("abc", 0), "");
}

TEST(StatusText, ANarrowTerminalCutsTheMiddleOfWhatIsAwaitedAndKeepsTheTime) {
  WaitSpec wait{"waiting for pid 12985 (/tmp/some/long/runtime/dir/vorn/12985/fs.sock) to answer",
                std::nullopt, true};
  std::string line = StatusText::line(wait, milliseconds(1600), 80);
  EXPECT_LE(line.size(), 79u);
  EXPECT_EQ(line.rfind("vorn: waiting for pid 12985 (", 0), 0u) << line;
  EXPECT_NE(line.find("..."), std::string::npos) << line;
  EXPECT_NE(line.find("fs.sock) to answer (1.6s) - Ctrl-C to stop"), std::string::npos) << line;
  // Wide enough, everything shows.
  std::string wide = StatusText::line(wait, milliseconds(1600), 300);
  EXPECT_NE(wide.find(wait.what), std::string::npos);
  EXPECT_NE(wide.find("VORN_TIMEOUT=<seconds> to bound waits"), std::string::npos);
  // A terminal too narrow for the time still gets a line that does not wrap.
  EXPECT_LE(StatusText::line(wait, milliseconds(1600), 20).size(), 19u);
}

}  // namespace
}  // namespace vorn
