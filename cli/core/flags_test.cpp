#include "core/flags.h"

#include <gtest/gtest.h>

#include "core/cli_error.h"

namespace vorn {
namespace {

using Words = std::vector<std::string>;

const std::vector<OptionSpec>& listOptions() {
  return findNoun("instance")->verb("list")->options;
}

std::string parseError(const Words& words, const std::vector<OptionSpec>& options) {
  try {
    parseFlags(words, options);
  } catch (const CliError& error) {
    EXPECT_EQ(error.code, 2);
    return error.message;
  }
  return "(no error)";
}

// The flags a full command line gives after hoisting and dropping noun and verb.
Flags flagsOf(const Words& line) {
  Words words = hoistGlobals(line);
  const NounSpec* noun = findNoun(words.at(0));
  const VerbSpec* verb = noun->verb(words.at(1));
  return parseFlags(Words(words.begin() + 2, words.end()), verb->options);
}

TEST(SplitEq, SplitsAtTheFirstEquals) {
  auto [name, value] = splitEq("--sock=/a=b");
  EXPECT_EQ(name, "--sock");
  EXPECT_EQ(value, "/a=b");
  auto [plain, none] = splitEq("--all");
  EXPECT_EQ(plain, "--all");
  EXPECT_FALSE(none.has_value());
  auto [eqAlone, empty] = splitEq("=");
  EXPECT_EQ(eqAlone, "");
  EXPECT_EQ(empty, "");
}

TEST(Lookup, FindsByNameOrAliasExactly) {
  EXPECT_EQ(lookup(globalOptions(), "-i")->name, "--instance");
  EXPECT_EQ(lookup(globalOptions(), "--output")->name, "--output");
  EXPECT_EQ(lookup(globalOptions(), "--inst"), nullptr);
  EXPECT_EQ(lookup(globalOptions(), "-I"), nullptr);
}

TEST(FlagWord, DashAloneAndNegativeNumbersArePositional) {
  EXPECT_FALSE(isFlagWord("-"));
  EXPECT_FALSE(isFlagWord("-1"));
  EXPECT_FALSE(isFlagWord(""));
  EXPECT_FALSE(isFlagWord("x-y"));
  EXPECT_TRUE(isFlagWord("-a"));
  EXPECT_TRUE(isFlagWord("--"));
  EXPECT_TRUE(isFlagWord("-x1"));
}

TEST(Hoist, MovesGlobalsBehindNounAndVerb) {
  EXPECT_EQ(hoistGlobals({"-i", "abc", "instance", "list", "--prune"}),
            (Words{"instance", "list", "--prune", "-i", "abc"}));
  EXPECT_EQ(hoistGlobals({"instance", "-a", "health"}), (Words{"instance", "health", "-a"}));
  EXPECT_EQ(hoistGlobals({"-o=json", "instance", "list"}), (Words{"instance", "list", "-o=json"}));
}

TEST(Hoist, StopsAtANonGlobalFlag) {
  EXPECT_EQ(hoistGlobals({"instance", "--prune", "-i", "x", "list"}),
            (Words{"instance", "--prune", "-i", "x", "list"}));
}

TEST(Hoist, StopsWhenAValueIsMissing) {
  EXPECT_EQ(hoistGlobals({"-i"}), (Words{"-i"}));
  EXPECT_EQ(hoistGlobals({"instance", "-i"}), (Words{"instance", "-i"}));
}

TEST(Hoist, KeepsDoubleDashAndWhatFollowsLast) {
  EXPECT_EQ(hoistGlobals({"-a", "search", "run", "x", "--", "-i", "y"}),
            (Words{"search", "run", "x", "-a", "--", "-i", "y"}));
  EXPECT_EQ(hoistGlobals({"--", "x"}), (Words{"--", "x"}));
  EXPECT_EQ(hoistGlobals({}), Words{});
}

TEST(WantsJSON, FindsOutputJsonAnywhereBeforeDoubleDash) {
  EXPECT_TRUE(wantsJSON({"instance", "list", "-o", "json"}));
  EXPECT_TRUE(wantsJSON({"-o", "json", "nosuch"}));
  EXPECT_TRUE(wantsJSON({"instance", "-o=json", "list"}));
  EXPECT_TRUE(wantsJSON({"x", "--output=json"}));
  EXPECT_FALSE(wantsJSON({"x", "-o", "yaml"}));
  EXPECT_FALSE(wantsJSON({"x", "--", "-o", "json"}));
  EXPECT_FALSE(wantsJSON({"x", "-o"}));
  EXPECT_FALSE(wantsJSON({}));
}

TEST(WantsJSON, AVerbThatOwnsOutputKeepsIt) {
  std::vector<OptionSpec> own = {{"--output", "-o", "FILE", "write here"}};
  EXPECT_FALSE(wantsJSON({"x", "y", "-o", "json"}, own));
  EXPECT_TRUE(wantsJSON({"x", "y", "-o", "json"}, {}));
}

TEST(ParseFlags, JsonFlagAnywhereGivesTheSameFlags) {
  Flags a = flagsOf({"instance", "list", "-o", "json"});
  Flags b = flagsOf({"-o", "json", "instance", "list"});
  Flags c = flagsOf({"instance", "-o=json", "list"});
  EXPECT_TRUE(a.json);
  EXPECT_EQ(a, b);
  EXPECT_EQ(b, c);
}

TEST(ParseFlags, GlobalsAndVerbOptions) {
  Flags f = flagsOf({"instance", "list", "--prune", "-q", "-i", "ab", "--pid", "42", "--sock=/s=1",
                     "-a", "extra"});
  EXPECT_EQ(f.instance, "ab");
  EXPECT_EQ(f.pid, 42);
  EXPECT_EQ(f.sock, "/s=1");
  EXPECT_TRUE(f.all);
  EXPECT_FALSE(f.json);
  EXPECT_EQ(f.args, Words{"extra"});
  EXPECT_TRUE(f.has("--prune"));
  EXPECT_TRUE(f.has("--quiet"));  // stored by long name whichever alias was typed
  EXPECT_FALSE(f.opts.at("--quiet").has_value());
}

TEST(ParseFlags, ValueOptionsTakeInlineOrNextWord) {
  const auto& options = findNoun("search")->verb("run")->options;
  Flags f = parseFlags({"pat", "--max", "5", "--include=*.go"}, options);
  EXPECT_EQ(*f.value("--max"), "5");
  EXPECT_EQ(*f.value("--include"), "*.go");
  EXPECT_EQ(f.value("--exclude"), nullptr);
  // The next word is taken as it stands, even when it looks like a flag.
  Flags g = parseFlags({"--instance", "--all"}, {});
  EXPECT_EQ(g.instance, "--all");
  EXPECT_FALSE(g.all);
}

TEST(ParseFlags, DoubleDashMakesTheRestPositional) {
  const auto& options = findNoun("search")->verb("run")->options;
  Flags f = parseFlags({"--", "--regex", "-i"}, options);
  EXPECT_EQ(f.args, (Words{"--regex", "-i"}));
  EXPECT_FALSE(f.has("--regex"));
}

TEST(ParseFlags, NegativeNumbersAndDashArePositional) {
  Flags f = parseFlags({"-1", "-", "-2.5"}, {});
  EXPECT_EQ(f.args, (Words{"-1", "-", "-2.5"}));
}

TEST(ParseFlags, OutputMustBeJson) {
  EXPECT_EQ(parseError({"-o", "yaml"}, listOptions()), "-o takes json (got yaml)");
  EXPECT_EQ(parseError({"-o", "out.json"}, listOptions()),
            "-o takes json (got out.json): -o is the output format; this command takes no -o FILE");
  EXPECT_EQ(parseError({"--output=a/b"}, listOptions()),
            "-o takes json (got a/b): -o is the output format; this command takes no -o FILE");
  std::vector<OptionSpec> withOut = {{"--out", std::nullopt, "FILE", "write here"}};
  EXPECT_EQ(parseError({"-o", "x.png"}, withOut),
            "-o takes json (got x.png): -o is the output format; write the file with --out x.png");
  EXPECT_EQ(parseError({"-o", "JSON"}, listOptions()), "-o takes json (got JSON)");
  EXPECT_EQ(parseError({"-o="}, listOptions()), "-o takes json (got )");
}

TEST(ParseFlags, UnknownFlags) {
  EXPECT_EQ(parseError({"--json"}, listOptions()), "unknown flag --json (JSON output is -o json)");
  EXPECT_EQ(parseError({"--bogus"}, listOptions()), "unknown flag --bogus");
  EXPECT_EQ(parseError({"--bogus=1"}, listOptions()), "unknown flag --bogus");
  EXPECT_EQ(parseError({"--"}, listOptions()), "(no error)");
}

TEST(ParseFlags, SwitchesTakeNoValue) {
  EXPECT_EQ(parseError({"--prune=yes"}, listOptions()), "--prune takes no value");
  EXPECT_EQ(parseError({"-q="}, listOptions()), "-q takes no value");
  EXPECT_EQ(parseError({"-a=1"}, listOptions()), "-a takes no value");
}

TEST(ParseFlags, MissingValuesNameTheWordAsTyped) {
  EXPECT_EQ(parseError({"--instance"}, listOptions()), "--instance needs a value (ID)");
  EXPECT_EQ(parseError({"-i"}, listOptions()), "-i needs a value (ID)");
  EXPECT_EQ(parseError({"--pid"}, listOptions()), "--pid needs a value (N)");
  EXPECT_EQ(parseError({"-o"}, listOptions()), "-o needs a value (json)");
}

TEST(ParseFlags, PidMustBePositive) {
  for (const char* bad : {"0", "-3", "x", "", "1.5", "+", "99999999999999999999", "4x"}) {
    EXPECT_EQ(parseError({"--pid", bad}, listOptions()),
              std::string("--pid needs a positive integer (got ") + bad + ")");
  }
  EXPECT_EQ(parseFlags({"--pid=17"}, {}).pid, 17);
  EXPECT_EQ(parseFlags({"--pid", "+17"}, {}).pid, 17);
}

TEST(ParseFlags, VerbOptionWinsOverAGlobalOfTheSameName) {
  std::vector<OptionSpec> own = {{"--all", std::nullopt, std::nullopt, "mine"}};
  Flags f = parseFlags({"--all"}, own);
  EXPECT_FALSE(f.all);
  EXPECT_TRUE(f.has("--all"));
}

TEST(ParseFlags, OddWordsNeverCrash) {
  std::string longWord(100000, 'x');
  std::string invalidUtf8 = "\xff\xfe\xc3";
  for (const Words& words : std::vector<Words>{{""},
                                               {"="},
                                               {"--"},
                                               {"-"},
                                               {longWord},
                                               {"--" + longWord},
                                               {invalidUtf8},
                                               {"-" + invalidUtf8},
                                               {"--=x"}}) {
    try {
      parseFlags(words, listOptions());
    } catch (const CliError& error) {
      EXPECT_EQ(error.code, 2);
    }
  }
}

TEST(RejectExtraArguments, OnlyPastTheAllowedCount) {
  Flags flags;
  flags.args = {"a", "b"};
  EXPECT_NO_THROW(rejectExtraArguments(flags, 2, "x y"));
  try {
    rejectExtraArguments(flags, 1, "doctor check");
    ADD_FAILURE() << "no error";
  } catch (const CliError& error) {
    EXPECT_EQ(error, usageError("vorn doctor check: unexpected argument 'b'"));
  }
}

}  // namespace
}  // namespace vorn
