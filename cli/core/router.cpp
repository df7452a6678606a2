#include "core/router.h"

#include <exception>
#include <new>

#include "core/cli_error.h"
#include "core/command_table.h"
#include "core/error_output.h"
#include "core/help.h"
#include "core/suggest.h"
#include "paths/file_target.h"
#include "paths/paths.h"
#include "transport/deadline.h"

namespace vorn {

namespace {

std::vector<std::string> rest(const std::vector<std::string>& words, size_t from) {
  if (from >= words.size()) return {};
  return {words.begin() + from, words.end()};
}

CliError unknownCommand(const std::string& word) {
  CliError error = usageError("unknown command '" + word + "' (vorn help)");
  error.suggestion = Suggest::forCommand(word);
  return error;
}

// The error as text or JSON; at a terminal the suggestion follows it on a line of its own.
Outcome printed(const CliError& error, bool json, Context& ctx) {
  std::string text = errorOutput(error, json);
  if (!text.empty() && !json && ctx.status && error.suggestion) text += "\n" + *error.suggestion;
  if (!text.empty()) ctx.writeErr(text + "\n");
  return Outcome::exit(error.code);
}

// What a terminal shows beyond the output (the status line of long waits, suggestions) is for
// people: JSON output goes to programs, and gets none of it.
void plainIfJSON(Context& ctx, bool json) {
  if (json) ctx.status = nullptr;
}

bool isVersionWord(const std::string& word) {
  return word == "version" || word == "--version" || word == "-V";
}

// VORN_TIMEOUT: the limit of each exchange with an instance, in seconds; none when it is not
// set or empty. A bad value is a usage error before anything is asked of an instance.
std::optional<double> exchangeTimeout(const Context& ctx) {
  const std::string* text = ctx.getenv("VORN_TIMEOUT");
  if (!text || text->empty()) return std::nullopt;
  if (std::optional<double> seconds = Transport::parseTimeout(*text)) return seconds;
  throw usageError("VORN_TIMEOUT must be a positive number of seconds (got " + *text + ")");
}

}  // namespace

Outcome VornCLI::main(const std::vector<std::string>& args, Context& ctx,
                      const Commands& commands) {
  bool json = wantsJSON(args);
  plainIfJSON(ctx, json);
  try {
    return run(args, ctx, commands, json);
  } catch (const CliError& error) {
    return printed(error, json, ctx);
  } catch (const std::bad_alloc&) {
    return printed(CliError{"out of memory"}, json, ctx);
  } catch (const std::exception& error) {
    // Nothing should get here; if something does, it is reported, not a crash.
    return printed(CliError{std::string("internal error: ") + error.what()}, json, ctx);
  }
}

Outcome VornCLI::run(const std::vector<std::string>& args, Context& ctx, const Commands& commands,
                     bool& json) {
  // `dev` hands the line over untouched; for everything else the time-out is set once, before
  // any handler runs or starts a thread.
  if (!args.empty() && args[0] == "dev") return commands.delegate(rest(args, 1), ctx);
  Transport::setTimeout(exchangeTimeout(ctx));
  if (!args.empty() && isVersionWord(args[0])) {
    Flags flags = parseFlags(rest(args, 1), {});
    plainIfJSON(ctx, flags.json);
    commands.version(flags, ctx);
    return Outcome::exit(0);
  }
  return dispatch(args, ctx, commands, json);
}

Outcome VornCLI::dispatch(const std::vector<std::string>& args, Context& ctx,
                          const Commands& commands, bool& json) {
  const std::vector<std::string> words = hoistGlobals(args);
  std::optional<std::string_view> first, second;
  if (words.size() > 0) first = words[0];
  if (words.size() > 1) second = words[1];

  if (!first || isHelp(first)) {
    if (!second) {
      ctx.writeOut(topHelp() + "\n");
      return Outcome::exit(0);
    }
    const NounSpec* noun = findNoun(*second);
    if (!noun) throw unknownCommand(words[1]);
    ctx.writeOut(nounHelp(*noun) + "\n");
    return Outcome::exit(0);
  }

  const NounSpec* noun = findNoun(*first);
  if (!noun) {
    if (auto rewritten = pathShorthand(args, ctx)) return dispatch(*rewritten, ctx, commands, json);
    throw unknownCommand(words[0]);
  }
  if (!second) {
    CliError error =
        usageError("vorn " + noun->noun + ": missing verb (" + noun->verbNames() + ")");
    error.preface = nounHelp(*noun);
    throw error;
  }
  if (isHelp(second)) {
    ctx.writeOut(nounHelp(*noun) + "\n");
    return Outcome::exit(0);
  }
  const VerbSpec* verb = noun->verb(*second);
  if (!verb) {
    CliError error = usageError("vorn " + noun->noun + ": unknown verb '" + words[1] + "' (" +
                                noun->verbNames() + ")");
    error.suggestion = Suggest::forVerb(*noun, words);
    throw error;
  }

  const std::vector<std::string> tail = rest(words, 2);
  for (const std::string& word : tail) {
    if (word == "--help" || word == "-h") {
      ctx.writeOut(verbHelpPage(*verb) + "\n");
      return Outcome::exit(0);
    }
  }
  json = wantsJSON(words, verb->options);
  Flags flags = parseFlags(tail, verb->options);
  plainIfJSON(ctx, json || flags.json);

  if (auto n = commands.handlers.find(noun->noun); n != commands.handlers.end()) {
    if (auto v = n->second.find(verb->name); v != n->second.end()) {
      v->second(flags, ctx);
      return Outcome::exit(0);
    }
  }
  if (auto n = commands.outcomeHandlers.find(noun->noun); n != commands.outcomeHandlers.end()) {
    if (auto v = n->second.find(verb->name); v != n->second.end()) return v->second(flags, ctx);
  }
  throw CliError{"vorn " + noun->noun + " " + verb->name + ": not implemented in this CLI", 1};
}

std::optional<std::vector<std::string>> pathShorthand(const std::vector<std::string>& args,
                                                      const Context& ctx) {
  if (args.empty() || args[0].rfind("-", 0) == 0) return std::nullopt;
  if (args.size() > 1 && args[1].rfind("-", 0) != 0) return std::nullopt;
  const std::string& word = args[0];
  auto prefixed = [&](std::vector<std::string> head) {
    head.insert(head.end(), args.begin(), args.end());
    return head;
  };
  std::string path = word.rfind("/", 0) == 0 ? word : ctx.cwd + "/" + word;
  if (Paths::isDirectory(path)) return prefixed({"workspace", "open"});
  if (parseFileTarget(word, ctx.cwd)) return prefixed({"file", "open"});
  bool explicitSocket = false;
  for (const std::string& arg : args) {
    explicitSocket = explicitSocket || arg == "--sock" || arg.rfind("--sock=", 0) == 0;
  }
  if (explicitSocket && word.find_first_of("/.") != std::string::npos) {
    return prefixed({"file", "open"});
  }
  return std::nullopt;
}

}  // namespace vorn
