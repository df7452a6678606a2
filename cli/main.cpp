// The process entry: ignore SIGPIPE, build the context, run, carry out the outcome.
#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "core/context.h"
#include "core/outcome.h"
#include "core/router.h"
#include "hosts/delegate.h"
#include "process/process.h"
#include "terminal/status_line.h"

extern char** environ;

namespace {

// Replaces the process image; returns only when that failed. The caller has restored SIGPIPE.
int replaceProcess(const std::vector<std::string>& argv, const std::optional<std::string>& root) {
  if (argv.empty()) return 127;
  std::vector<char*> args = vorn::cStrings(argv);
  ::execvp(args[0], args.data());
  int error = errno;
  vorn::emit(2, vorn::execFailure(argv[0], error, root));
  return 127;
}

}  // namespace

int main(int argc, char** argv) {
  ::signal(SIGPIPE, SIG_IGN);
  vorn::Context ctx = vorn::processContext(environ);
  // At a terminal, every write goes through the status line of long waits, so the two never
  // interleave; elsewhere the output is written as it is.
  std::unique_ptr<vorn::StatusLine> status = vorn::StatusLine::forTerminal(ctx.getenv("TERM"));
  if (status) {
    ctx.status = status.get();
    ctx.writeOut = [line = status.get()](std::string_view text) { line->write(1, text); };
    ctx.writeErr = [line = status.get()](std::string_view text) { line->write(2, text); };
  }
  std::vector<std::string> args(argv + (argc > 0 ? 1 : 0), argv + argc);
  vorn::Outcome outcome = vorn::VornCLI::main(args, ctx, vorn::commands());
  if (status) status->stop();  // the line is gone and its thread ended before exit or exec

  if (auto* exit = std::get_if<vorn::Outcome::Exit>(&outcome.value)) return exit->code;
  ::signal(SIGPIPE, SIG_DFL);  // the child must not inherit the ignore disposition
  if (auto* exec = std::get_if<vorn::Outcome::Exec>(&outcome.value)) {
    if (exec->root) ::setenv("VORN_REPO_ROOT", exec->root->c_str(), 1);
    return replaceProcess(exec->argv, exec->root);
  }
  auto& host = std::get<vorn::Outcome::ExecHost>(outcome.value);
  for (const auto& [name, value] : host.env)
    ::setenv(name.c_str(), value.c_str(), 1);
  for (const std::string& name : host.unset)
    ::unsetenv(name.c_str());
  return replaceProcess(host.argv, std::nullopt);
}
