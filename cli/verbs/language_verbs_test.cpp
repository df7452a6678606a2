#include "verbs/language_verbs.h"

#include <gtest/gtest.h>

#include "core/cli_error.h"
#include "core/test_support.h"
#include "instances/instances.h"

namespace vorn {
namespace {

TEST(ParseSignedInteger, Accepts) {
  EXPECT_EQ(parseSignedInteger("0"), 0);
  EXPECT_EQ(parseSignedInteger("9"), 9);
  EXPECT_EQ(parseSignedInteger("+3"), 3);
  EXPECT_EQ(parseSignedInteger("-1"), -1);
  EXPECT_EQ(parseSignedInteger("-0"), 0);
  EXPECT_EQ(parseSignedInteger("007"), 7);
  EXPECT_EQ(parseSignedInteger("9223372036854775807"), INT64_MAX);
  EXPECT_EQ(parseSignedInteger("+9223372036854775807"), INT64_MAX);
  EXPECT_EQ(parseSignedInteger("-9223372036854775808"), INT64_MIN);
  EXPECT_EQ(parseSignedInteger("00000000000000000000009223372036854775807"), INT64_MAX);
}

TEST(ParseSignedInteger, Rejects) {
  for (const char* text : {"",
                           "+",
                           "-",
                           "3.0",
                           " 3",
                           "3 ",
                           "\t3",
                           "+-3",
                           "-+3",
                           "++3",
                           "--3",
                           "0x10",
                           "1e3",
                           "3a",
                           "a3",
                           "\xD9\xA3",
                           "9223372036854775808",
                           "-9223372036854775809",
                           "+9223372036854775808",
                           "99999999999999999999",
                           "18446744073709551616"}) {
    EXPECT_EQ(parseSignedInteger(text), std::nullopt) << '"' << text << '"';
  }
  EXPECT_EQ(parseSignedInteger(std::string_view("1\0", 2)), std::nullopt);
}

Flags withArgs(std::vector<std::string> args) {
  Flags flags;
  flags.args = std::move(args);
  return flags;
}

CliError errorOf(const Flags& flags, const std::string& verb) {
  try {
    positionBody(flags, verb);
  } catch (const CliError& error) {
    return error;
  }
  ADD_FAILURE() << "expected an error";
  return {};
}

TEST(PositionBody, MembersInOrderPathAsTyped) {
  EXPECT_EQ(positionBody(withArgs({"main.go", "9", "4"}), "hover").serialized(0),
            R"({"path":"main.go","line":9,"character":4})");
  EXPECT_EQ(positionBody(withArgs({"./a/../b.go", "+3", "-1", "extra"}), "hover").serialized(0),
            R"({"path":"./a/../b.go","line":3,"character":-1})");
}

TEST(PositionBody, HugeValuesBecomeJSONNumbers) {
  EXPECT_EQ(positionBody(withArgs({"a.go", "9007199254740993", "-9223372036854775808"}), "hover")
                .serialized(0),
            R"({"path":"a.go","line":9007199254740992,"character":-9223372036854775808})");
}

TEST(PositionBody, TooFewArguments) {
  CliError error = errorOf(withArgs({"main.go", "9"}), "definition");
  EXPECT_EQ(error.message, "vorn language definition: needs <path> <line> <char> (0-based)");
  EXPECT_EQ(error.code, 2);
}

TEST(PositionBody, NotIntegers) {
  for (const auto& [line, character] : std::vector<std::pair<std::string, std::string>>{
           {"1", "x"}, {"3.0", "1"}, {" 3", "1"}, {"1", ""}, {"1", "9223372036854775808"}}) {
    CliError error = errorOf(withArgs({"a.go", line, character}), "type-definition");
    EXPECT_EQ(error.message,
              "vorn language type-definition: <line> and <char> must be integers (0-based)");
    EXPECT_EQ(error.code, 2);
  }
}

TEST(LanguageVerbs, Table) {
  VerbTable table = languageVerbs();
  EXPECT_EQ(table.size(), 4u);
  for (const char* verb : {"status", "hover", "definition", "type-definition"}) {
    EXPECT_TRUE(table.count(verb)) << verb;
  }
}

TEST(LanguageVerbs, UsageErrorBeforeAnyInstance) {
  CapturedContext captured;
  captured.ctx.env["XDG_RUNTIME_DIR"] = "/nonexistent-vorn-test-runtime";
  Instances instances{captured.ctx};
  try {
    languageVerbs().at("hover")(withArgs({"a.go", "1"}), instances);
    FAIL() << "expected a usage error";
  } catch (const CliError& error) {
    EXPECT_EQ(error.message, "vorn language hover: needs <path> <line> <char> (0-based)");
    EXPECT_EQ(error.code, 2);
  }
}

}  // namespace
}  // namespace vorn
