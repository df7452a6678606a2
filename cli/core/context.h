// What one invocation knows about its surroundings, and where it writes.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "terminal/emit.h"

namespace vorn {

class StatusLine;

struct Context {
  std::map<std::string, std::string> env;
  std::string cwd;
  std::string executable;
  std::function<void(std::string_view)> writeOut;
  std::function<void(std::string_view)> writeErr;
  // The status line of long waits; none unless standard error is a terminal and the output is
  // not JSON. Waiting hooks take it as it is (a null one shows nothing).
  StatusLine* status = nullptr;

  // The variable's value, or nullptr when it is not set.
  const std::string* getenv(const std::string& name) const {
    auto it = env.find(name);
    return it == env.end() ? nullptr : &it->second;
  }
};

// The context of this process: environment, cwd, resolved executable, fds 1 and 2.
Context processContext(char** environ);

}  // namespace vorn
