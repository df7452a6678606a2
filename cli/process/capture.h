// Running a program to read what it prints: a child started without a shell, in a chosen
// directory and environment, whose standard output comes back as text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace vorn {

// What a child printed on standard output, and how it ended.
struct Captured {
  int startError = 0;     // errno when the program could not be started; 0 when it ran
  int32_t status = 0;     // its exit status, or 128 + the signal that ended it
  int signal = 0;         // the signal that ended it; 0 when it exited
  std::string output;     // its standard output, at most the limit
  bool overflow = false;  // it printed more than the limit: reading stopped and the pipe closed
};

// Runs `program` (a path; PATH is not searched) with `argv` (argv[0] included) in `cwd` and with
// exactly `env`, standard input from /dev/null and standard error inherited. Reads standard
// output to its end, or until more than `limit` bytes came (the pipe is then closed, so a child
// that keeps printing ends on SIGPIPE), or until the child has exited and nothing more is
// waiting (a background grandchild holding the pipe is not waited for). Then waits for the
// child, however long it runs.
Captured captureOutput(const std::string& program, const std::vector<std::string>& argv,
                       const std::string& cwd, const std::map<std::string, std::string>& env,
                       size_t limit);

}  // namespace vorn
