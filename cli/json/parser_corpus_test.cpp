// JSON::parse over the public parsing corpus (valid, invalid, implementation-defined and
// transform files), and over random and randomly damaged input.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <regex>
#include <set>
#include <sstream>

#include "json/json.h"
#include "json/test_json.h"
#include "json/test_mutations.h"

namespace vorn {
namespace {

std::string compact(std::string_view text) {
  return JSON::parse(text).serialized(0);
}

// --- the public corpus ---

std::filesystem::path corpus() {
  return std::filesystem::path(VORN_TESTDATA) / "json-test-suite";
}

std::string readFile(const std::filesystem::path& p) {
  std::ifstream f(p, std::ios::binary);
  std::stringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

std::vector<std::filesystem::path> corpusFiles(const std::string& prefix) {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(corpus() / "test_parsing")) {
    if (entry.path().filename().string().rfind(prefix, 0) == 0) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

TEST(JSONCorpus, EveryValidFileParsesAndRoundTrips) {
  auto files = corpusFiles("y_");
  ASSERT_GT(files.size(), 90u);
  for (const auto& file : files) {
    std::string text = readFile(file);
    std::string error = parseError(text);
    EXPECT_EQ(error, "") << file.filename();
    if (!error.empty()) continue;
    JSON v = JSON::parse(text);
    EXPECT_EQ(JSON::parse(v.serialized(0)), v) << file.filename();
    EXPECT_EQ(JSON::parse(v.serialized(2)), v) << file.filename();
  }
}

// The invalid files that the parser accepts on purpose, each with the lenient rule that accepts it.
const std::map<std::string, std::string> kAcceptedInvalid = {
    {"n_number_+1.json", "a leading + is accepted"},
    {"n_number_-01.json", "leading zeros are accepted"},
    {"n_number_-2..json", "a number may end with a decimal point"},
    {"n_number_.2e-3.json", "a number may start with a decimal point"},
    {"n_number_0.e1.json", "a decimal point needs no digits after it"},
    {"n_number_2.e+3.json", "a decimal point needs no digits after it"},
    {"n_number_2.e-3.json", "a decimal point needs no digits after it"},
    {"n_number_2.e3.json", "a decimal point needs no digits after it"},
    {"n_number_neg_int_starting_with_zero.json", "leading zeros are accepted"},
    {"n_number_neg_real_without_int_part.json", "a number may start with a decimal point"},
    {"n_number_real_without_fractional_part.json", "a number may end with a decimal point"},
    {"n_number_starting_with_dot.json", "a number may start with a decimal point"},
    {"n_number_with_leading_zero.json", "leading zeros are accepted"},
    {"n_string_backslash_00.json", "an unknown escape stands for the escaped byte"},
    {"n_string_escape_x.json", "an unknown escape stands for the escaped byte"},
    {"n_string_escaped_ctrl_char_tab.json", "an unknown escape stands for the escaped byte"},
    {"n_string_escaped_emoji.json", "an unknown escape stands for the escaped byte"},
    {"n_string_incomplete_surrogate_escape_invalid.json",
     "lone surrogates become U+FFFD; an unknown escape stands for the escaped byte"},
    {"n_string_invalid_backslash_esc.json", "an unknown escape stands for the escaped byte"},
    {"n_string_invalid_utf8_after_escape.json",
     "an unknown escape stands for the escaped byte; invalid UTF-8 becomes U+FFFD"},
    {"n_string_unescaped_ctrl_char.json", "raw control bytes are accepted in strings"},
    {"n_string_unescaped_newline.json", "raw control bytes are accepted in strings"},
    {"n_string_unescaped_tab.json", "raw control bytes are accepted in strings"},
    {"n_string_unicode_CapitalU.json", "an unknown escape stands for the escaped byte"},
};

const std::regex kErrorPattern(
    "(unexpected trailing data|nesting too deep|unexpected end|unterminated string|"
    "unterminated array|unterminated object|expected , or \\]|expected , or \\}|expected a key|"
    "expected :|bad literal|bad number|bad \\\\u escape) at offset ([0-9]+)");

// Empty when the message has the form "<text> at offset <n>" with n within the input.
std::string checkErrorMessage(const std::string& message, size_t inputSize) {
  std::smatch m;
  if (!std::regex_match(message, m, kErrorPattern)) return "malformed message: " + message;
  if (std::stoull(m[2].str()) > inputSize) return "offset past the end: " + message;
  return "";
}

TEST(JSONCorpus, InvalidFilesAreRejectedExceptTheLenientOnes) {
  auto files = corpusFiles("n_");
  ASSERT_GT(files.size(), 180u);
  std::set<std::string> accepted;
  for (const auto& file : files) {
    std::string name = file.filename().string();
    std::string text = readFile(file);
    std::string error = parseError(text);
    if (kAcceptedInvalid.count(name)) {
      EXPECT_EQ(error, "") << name << " should be accepted: " << kAcceptedInvalid.at(name);
      accepted.insert(name);
    } else {
      EXPECT_NE(error, "") << name << " was accepted";
      EXPECT_EQ(checkErrorMessage(error, text.size()), "") << name;
    }
  }
  EXPECT_EQ(accepted.size(), kAcceptedInvalid.size()) << "a listed file is missing";
}

TEST(JSONCorpus, ImplementationDefinedFilesNeverCrash) {
  auto files = corpusFiles("i_");
  ASSERT_GT(files.size(), 30u);
  for (const auto& file : files) {
    std::string text = readFile(file);
    std::string error = parseError(text);
    if (!error.empty()) {
      EXPECT_EQ(checkErrorMessage(error, text.size()), "") << file.filename();
    } else {
      // Whatever was accepted serializes to valid text that reads back the same.
      JSON v = JSON::parse(text);
      std::string out = v.serialized(0);
      EXPECT_TRUE(isValidUTF8(out)) << file.filename();
      EXPECT_EQ(JSON::parse(out).serialized(0), out) << file.filename();
    }
  }
}

TEST(JSONCorpus, TransformFiles) {
  const std::string r = kFFFD;
  const std::map<std::string, std::string> expected = {
      {"number_-9223372036854775808.json", "[-9223372036854775808]"},
      {"number_-9223372036854775809.json", "[-9223372036854775808]"},
      {"number_1.0.json", "[1]"},
      {"number_1.000000000000000005.json", "[1]"},
      {"number_1000000000000000.json", "[1000000000000000]"},
      {"number_10000000000000000999.json", "[10000000000000000000]"},
      {"number_1e-999.json", "[0]"},
      {"number_1e6.json", "[1000000]"},
      {"number_9223372036854775807.json", "[9223372036854775808]"},
      {"number_9223372036854775808.json", "[9223372036854775808]"},
      {"object_key_nfc_nfd.json", "{\"\xC3\xA9\":\"NFC\",\"e\xCC\x81\":\"NFD\"}"},
      {"object_key_nfd_nfc.json", "{\"e\xCC\x81\":\"NFD\",\"\xC3\xA9\":\"NFC\"}"},
      {"object_same_key_different_values.json", "{\"a\":1,\"a\":2}"},
      {"object_same_key_same_value.json", "{\"a\":1,\"a\":1}"},
      {"object_same_key_unclear_values.json", "{\"a\":0,\"a\":0}"},
      {"string_1_escaped_invalid_codepoint.json", "[\"" + r + "\"]"},
      {"string_1_invalid_codepoint.json", "[\"" + r + r + r + "\"]"},
      {"string_2_escaped_invalid_codepoints.json", "[\"" + r + r + "\"]"},
      {"string_2_invalid_codepoints.json", "[\"" + r + r + r + r + r + r + "\"]"},
      {"string_3_escaped_invalid_codepoints.json", "[\"" + r + r + r + "\"]"},
      {"string_3_invalid_codepoints.json", "[\"" + r + r + r + r + r + r + r + r + r + "\"]"},
      {"string_with_escaped_NULL.json", "[\"A\\u0000B\"]"},
  };
  for (const auto& [name, want] : expected) {
    std::string text = readFile(corpus() / "test_transform" / name);
    ASSERT_FALSE(text.empty()) << name;
    EXPECT_EQ(compact(text), want) << name;
  }
}

// --- random input ---

TEST(JSONFuzz, RandomBytesParseOrFailWithAnOffset) {
  std::mt19937 rng(12345);
  const std::string alphabet = "[]{}\",:\\ tfnrue0123456789+-.eEu";
  for (int i = 0; i < 4000; ++i) {
    size_t length = rng() % 48;
    std::string text;
    for (size_t k = 0; k < length; ++k) {
      text += (rng() % 3) ? alphabet[rng() % alphabet.size()] : static_cast<char>(rng() & 0xFF);
    }
    try {
      JSON v = JSON::parse(text);
      ASSERT_TRUE(isValidUTF8(v.serialized(0))) << i;
    } catch (const JSONParseError& e) {
      ASSERT_EQ(checkErrorMessage(e.message, text.size()), "") << i;
    }
  }
}

TEST(JSONFuzz, MutatedDocumentsParseOrFailWithAnOffset) {
  const std::string seed =
      "{\"a\":[1,2.5e-3,-0,true,false,null,\"s\\n\\u00e9\\ud83d\\ude00\"],\"b\":{\"c\":{}},"
      "\"d\":[[],[{}]],\"e\":\"\xC3\xA9\"}";
  ASSERT_NO_THROW(JSON::parse(seed));
  std::mt19937 rng(777);
  int parsed = 0;
  for (int i = 0; i < 4000; ++i) {
    std::string text = mutated(seed, rng, 1, 4);
    try {
      JSON v = JSON::parse(text);
      ++parsed;
      std::string out = v.serialized(2);
      ASSERT_EQ(JSON::parse(out).serialized(2), out) << i;
    } catch (const JSONParseError& e) {
      ASSERT_EQ(checkErrorMessage(e.message, text.size()), "") << i;
    }
  }
  EXPECT_GT(parsed, 0);
}

}  // namespace
}  // namespace vorn
