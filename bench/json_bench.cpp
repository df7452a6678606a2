// Parse and serialize throughput on a generated reply of about 50 MB: objects, arrays, strings
// with escapes and non-ASCII text, integers and fractions.
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <string>

#include "bench_main.h"
#include "json/block_writer.h"
#include "json/json.h"

namespace {

using vorn::BlockWriter;
using vorn::JSON;

std::string word(std::mt19937& rng) {
  static const char* const kWords[] = {
      "vorn", "editor",     "main.go", "handler",     "café", "x",       "cmd",         "internal",
      "a\tb", "say \"hi\"", "C:\\tmp", "line\nbreak", "数据", "emoji 😀", "path/to/file"};
  return kWords[rng() % std::size(kWords)];
}

JSON record(std::mt19937& rng, int i) {
  JSON::Array tags;
  int tagCount = static_cast<int>(rng() % 5);
  for (int k = 0; k < tagCount; ++k)
    tags.emplace_back(word(rng));
  JSON::Array positions;
  for (int k = 0; k < 4; ++k)
    positions.emplace_back(static_cast<int>(rng() % 5000));
  std::string text;
  int words = 3 + static_cast<int>(rng() % 12);
  for (int k = 0; k < words; ++k) {
    if (k) text += ' ';
    text += word(rng);
  }
  return JSON::object({
      {"id", i},
      {"path", "/src/pkg" + std::to_string(rng() % 100) + "/file_" + std::to_string(i) + ".go"},
      {"line", static_cast<int>(rng() % 20000)},
      {"score", static_cast<double>(rng() % 1000000) / 997.0},
      {"ratio", std::ldexp(static_cast<double>(rng() % 100000), -static_cast<int>(rng() % 40))},
      {"text", text},
      {"tags", JSON::array(std::move(tags))},
      {"range", JSON::object({{"start", JSON::array(positions)}, {"empty", JSON::object()}})},
      {"ok", (rng() & 1) != 0},
      {"parent", JSON()},
  });
}

const JSON& document() {
  static const JSON doc = [] {
    std::mt19937 rng(42);
    JSON::Array items;
    // Counts the text each record adds at indent 2 inside the "matches" array; stop near 50 MB.
    size_t size = 0;
    std::string probe;
    for (int i = 0; size < 50u * 1000 * 1000; ++i) {
      items.push_back(record(rng, i));
      probe.clear();
      items.back().write(probe, 2, 2);
      size += probe.size() + 6;
    }
    return JSON::object({{"matches", JSON::array(std::move(items))}, {"truncated", false}});
  }();
  return doc;
}

const std::string& documentText() {
  static const std::string text = document().serialized(2);
  return text;
}

void BM_Parse(benchmark::State& state) {
  const std::string& text = documentText();
  for (auto _ : state) {
    JSON v = JSON::parse(text);
    benchmark::DoNotOptimize(v);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(text.size()));
  state.counters["bytes"] = static_cast<double>(text.size());
}

void serialize(benchmark::State& state, int indent) {
  const JSON& doc = document();
  size_t size = 0;
  for (auto _ : state) {
    std::string out = doc.serialized(indent);
    size = out.size();
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(size));
  state.counters["bytes"] = static_cast<double>(size);
}

// Reply text straight to indented text, as a large read reply is printed.
void BM_ReformatIndent2(benchmark::State& state) {
  const std::string& text = documentText();
  for (auto _ : state) {
    std::string out = JSON::reformat(text, 2);
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(text.size()));
  state.counters["bytes"] = static_cast<double>(text.size());
}

// A large reply as it is printed: checked whole, then reformatted and handed on in blocks.
void BM_PrintInBlocks(benchmark::State& state) {
  const std::string& text = documentText();
  size_t printed = 0;
  BlockWriter out([&](std::string_view block) { printed += block.size(); });
  for (auto _ : state) {
    JSON::reformatTo(text, 2, 0, out);
    out.flush();
  }
  benchmark::DoNotOptimize(printed);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(text.size()));
  state.counters["bytes"] = static_cast<double>(text.size());
}

void BM_SerializeIndent2(benchmark::State& state) {
  serialize(state, 2);
}
void BM_SerializeIndent0(benchmark::State& state) {
  serialize(state, 0);
}

// The ceiling for the others: copying the document's bytes from one buffer to another.
void BM_Memcpy(benchmark::State& state) {
  const std::string& text = documentText();
  std::string copy(text.size(), '\0');
  for (auto _ : state) {
    std::memcpy(copy.data(), text.data(), text.size());
    benchmark::ClobberMemory();
  }
  benchmark::DoNotOptimize(copy.data());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(text.size()));
  state.counters["bytes"] = static_cast<double>(text.size());
}

BENCHMARK(BM_Memcpy)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_Parse)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_SerializeIndent2)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_SerializeIndent0)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_ReformatIndent2)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_PrintInBlocks)->Unit(benchmark::kMillisecond)->MinTime(2.0);

}  // namespace

int main(int argc, char** argv) { return vorn::runBenchmarks(argc, argv); }
