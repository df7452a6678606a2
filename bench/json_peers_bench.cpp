// The program's JSON parser and serializer beside the libraries a C++ engineer would otherwise
// pick (simdjson's DOM parser, RapidJSON, nlohmann/json), on the same generated documents in
// the same binary, with memcpy of the same bytes as the ceiling. The peers are linked into this
// benchmark only.
//
// Benchmarks are named op/document/library: op is parse (text to value), compact (value to text
// at indent 0) or indent2 (value to text at indent 2). Throughput counts the document's text for
// parse and the text written for the others. A counter "value_bytes" gives the heap that the
// program's parsed value holds, where the C library can tell.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include <nlohmann/json.hpp>
#include <rapidjson/document.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <simdjson.h>

#include "bench_main.h"
#include "json/json.h"

namespace {

using vorn::JSON;

// Deterministic on every platform: the generator's raw output only, no distributions.
class Random {
 public:
  explicit Random(uint32_t seed) : rng_(seed) {}
  uint32_t below(uint32_t n) { return static_cast<uint32_t>(rng_() % n); }
  double unit() { return static_cast<double>(rng_()) / 4294967296.0; }

 private:
  std::mt19937 rng_;
};

const char* const kStems[] = {"main",     "handler", "server",  "données", "数据",   "ñandú",
                              "emoji 😀", "util",    "say \"hi\"", "back\\slash", "tab\there",
                              "config",  "Ελληνικά", "release", "test",   "внутренний"};
const char* const kExtensions[] = {".go", ".md", ".txt", ".json", ".png", "_test.go", ""};

std::string fileName(Random& r, int i) {
  return std::string(kStems[r.below(std::size(kStems))]) + "_" + std::to_string(i) +
         kExtensions[r.below(std::size(kExtensions))];
}

// A folder of a large repository: files and sub-folders, each with its name, full path, type
// and (files) size, until the budget of entries is spent.
JSON folder(Random& r, const std::string& path, const std::string& name, int depth, long& budget) {
  JSON::Array children;
  int files = 5 + static_cast<int>(r.below(40));
  for (int i = 0; i < files && budget > 0; ++i, --budget) {
    std::string child = fileName(r, i);
    children.push_back(JSON::object({{"name", child},
                                     {"path", path + "/" + child},
                                     {"type", "file"},
                                     {"size", static_cast<int>(r.below(200000))}}));
  }
  int folders = depth < 7 ? 2 + static_cast<int>(r.below(6)) : 0;
  for (int i = 0; i < folders && budget > 0; ++i) {
    std::string child = std::string(i % 3 ? "pkg" : "模块") + "_" + std::to_string(i);
    children.push_back(folder(r, path + "/" + child, child, depth + 1, budget));
  }
  return JSON::object({{"name", name},
                       {"path", path},
                       {"type", "directory"},
                       {"children", JSON::array(std::move(children))}});
}

// About `bytes` of a workspace tree reply, as an instance sends it (compact).
std::string treeDocument(size_t bytes) {
  Random r(17);
  JSON::Array roots;
  std::string text;
  for (int i = 0; text.size() < bytes; ++i) {
    long budget = 20000;
    std::string name = "module_" + std::to_string(i);
    roots.push_back(folder(r, "/Users/dev/src/project/" + name, name, 0, budget));
    text = JSON::array(roots).serialized(0);
  }
  return text;
}

// Coordinates with all the digits of a double, as in the well-known map of Canada.
std::string numbersDocument(size_t bytes) {
  Random r(29);
  JSON::Array rings;
  size_t size = 0;
  while (size < bytes) {
    JSON::Array ring;
    for (int i = 0; i < 1000; ++i) {
      double lon = -141.0 + 89.0 * r.unit();
      double lat = 41.7 + 41.4 * r.unit();
      ring.push_back(JSON::array({lon, lat}));
    }
    JSON ringValue = JSON::array(std::move(ring));
    size += ringValue.serialized(0).size() + 1;
    rings.push_back(std::move(ringValue));
  }
  JSON geometry = JSON::object({{"type", "Polygon"}, {"coordinates", JSON::array(std::move(rings))}});
  JSON feature = JSON::object(
      {{"type", "Feature"}, {"properties", JSON::object({{"name", "Canada"}})}, {"geometry", geometry}});
  return JSON::object({{"type", "FeatureCollection"}, {"features", JSON::array({feature})}})
      .serialized(0);
}

// Short strings: words with escapes (quotes, backslashes, line breaks, control bytes) and text
// in several scripts.
std::string stringsDocument(size_t bytes) {
  static const char* const kPieces[] = {"a",  "id",   "é",    "日本", "\"",  "\\",  "\n", "\t",
                                        "ok", "Grüße", "\x01", "😀",   "név", "x/y", " ",  "Ωμέγα"};
  Random r(43);
  JSON::Array strings;
  size_t size = 0;
  while (size < bytes) {
    std::string s;
    int pieces = 1 + static_cast<int>(r.below(6));
    for (int i = 0; i < pieces; ++i)
      s += kPieces[r.below(std::size(kPieces))];
    size += JSON::quote(s).size() + 1;
    strings.emplace_back(s);
  }
  return JSON::array(std::move(strings)).serialized(0);
}

// Values nested 400 levels deep (objects and arrays in turn), one after another.
std::string nestedDocument(size_t bytes) {
  std::string one;
  for (int d = 0; d < 200; ++d)
    one += "{\"k\":[";
  one += "1";
  for (int d = 0; d < 200; ++d)
    one += "]}";
  std::string text = "[";
  while (text.size() < bytes) {
    if (text.size() > 1) text += ',';
    text += one;
  }
  text += ']';
  return text;
}

// The worst case for a parsed value's size: a long array of one-digit numbers.
std::string zerosDocument(size_t bytes) {
  std::string text = "[0";
  while (text.size() < bytes)
    text += ",0";
  text += ']';
  return text;
}

struct Document {
  const char* name;
  std::string text;
};

const std::vector<Document>& documents() {
  static const std::vector<Document> docs = [] {
    std::vector<Document> d;
    d.push_back({"tree", treeDocument(size_t{44} << 20)});
    d.push_back({"numbers", numbersDocument(size_t{4} << 20)});
    d.push_back({"strings", stringsDocument(size_t{4} << 20)});
    d.push_back({"nested", nestedDocument(size_t{4} << 20)});
    d.push_back({"zeros", zerosDocument(size_t{16} << 20)});
    return d;
  }();
  return docs;
}

void count(benchmark::State& state, size_t bytes) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(bytes));
  state.counters["bytes"] = static_cast<double>(bytes);
}

// The heap in use, where the C library tells it.
size_t heapInUse() {
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 33))
  struct mallinfo2 m = mallinfo2();
  return m.uordblks + m.hblkhd;  // small blocks and those given their own mapping
#else
  return 0;
#endif
}

void memcpyBench(benchmark::State& state, const std::string& text) {
  std::string copy(text.size(), '\0');
  for (auto _ : state) {
    std::memcpy(copy.data(), text.data(), text.size());
    benchmark::ClobberMemory();
  }
  benchmark::DoNotOptimize(copy.data());
  count(state, text.size());
}

// --- vorn ---

void vornParse(benchmark::State& state, const std::string& text) {
  for (auto _ : state) {
    JSON v = JSON::parse(text);
    benchmark::DoNotOptimize(v);
  }
  count(state, text.size());
  size_t before = heapInUse();
  JSON v = JSON::parse(text);
  size_t after = heapInUse();
  if (after > before) {
    state.counters["value_bytes"] = static_cast<double>(after - before);
    state.counters["value_ratio"] =
        static_cast<double>(after - before) / static_cast<double>(text.size());
  }
}

void vornWrite(benchmark::State& state, const std::string& text, int indent) {
  JSON v = JSON::parse(text);
  size_t size = 0;
  for (auto _ : state) {
    std::string out = v.serialized(indent);
    size = out.size();
    benchmark::DoNotOptimize(out);
  }
  count(state, size);
}

// --- simdjson (DOM) ---

void simdjsonParse(benchmark::State& state, const std::string& text) {
  simdjson::padded_string padded(text);
  simdjson::dom::parser parser;
  for (auto _ : state) {
    simdjson::dom::element e;
    if (parser.parse(padded).get(e)) {
      state.SkipWithError("simdjson could not parse the document");
      return;
    }
    benchmark::DoNotOptimize(e);
  }
  count(state, text.size());
}

void simdjsonCompact(benchmark::State& state, const std::string& text) {
  simdjson::padded_string padded(text);
  simdjson::dom::parser parser;
  simdjson::dom::element e;
  if (parser.parse(padded).get(e)) {
    state.SkipWithError("simdjson could not parse the document");
    return;
  }
  size_t size = 0;
  for (auto _ : state) {
    std::string out = simdjson::to_string(e);
    size = out.size();
    benchmark::DoNotOptimize(out);
  }
  count(state, size);
}

// --- RapidJSON (default flags) ---

void rapidjsonParse(benchmark::State& state, const std::string& text) {
  for (auto _ : state) {
    rapidjson::Document d;
    d.Parse(text.data(), text.size());
    if (d.HasParseError()) {
      state.SkipWithError("RapidJSON could not parse the document");
      return;
    }
    benchmark::DoNotOptimize(d);
  }
  count(state, text.size());
}

void rapidjsonWrite(benchmark::State& state, const std::string& text, int indent) {
  rapidjson::Document d;
  d.Parse(text.data(), text.size());
  size_t size = 0;
  for (auto _ : state) {
    rapidjson::StringBuffer buffer;
    if (indent > 0) {
      rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(buffer);
      writer.SetIndent(' ', static_cast<unsigned>(indent));
      d.Accept(writer);
    } else {
      rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
      d.Accept(writer);
    }
    size = buffer.GetSize();
    benchmark::DoNotOptimize(buffer.GetString());
  }
  count(state, size);
}

// --- nlohmann/json ---

void nlohmannParse(benchmark::State& state, const std::string& text) {
  for (auto _ : state) {
    nlohmann::json j = nlohmann::json::parse(text);
    benchmark::DoNotOptimize(j);
  }
  count(state, text.size());
}

void nlohmannWrite(benchmark::State& state, const std::string& text, int indent) {
  nlohmann::json j = nlohmann::json::parse(text);
  size_t size = 0;
  for (auto _ : state) {
    std::string out = indent > 0 ? j.dump(indent) : j.dump();
    size = out.size();
    benchmark::DoNotOptimize(out);
  }
  count(state, size);
}

void add(const std::string& name, std::function<void(benchmark::State&)> fn) {
  benchmark::RegisterBenchmark(name.c_str(), fn)
      ->Unit(benchmark::kMillisecond)
      ->MinTime(0.5);
}

void registerAll() {
  for (const Document& doc : documents()) {
    const std::string& t = doc.text;
    std::string d = doc.name;
    add("memcpy/" + d + "/memcpy", [&t](benchmark::State& s) { memcpyBench(s, t); });
    add("parse/" + d + "/vorn", [&t](benchmark::State& s) { vornParse(s, t); });
    add("parse/" + d + "/simdjson", [&t](benchmark::State& s) { simdjsonParse(s, t); });
    add("parse/" + d + "/rapidjson", [&t](benchmark::State& s) { rapidjsonParse(s, t); });
    add("parse/" + d + "/nlohmann", [&t](benchmark::State& s) { nlohmannParse(s, t); });
    add("compact/" + d + "/vorn", [&t](benchmark::State& s) { vornWrite(s, t, 0); });
    add("compact/" + d + "/simdjson", [&t](benchmark::State& s) { simdjsonCompact(s, t); });
    add("compact/" + d + "/rapidjson", [&t](benchmark::State& s) { rapidjsonWrite(s, t, 0); });
    add("compact/" + d + "/nlohmann", [&t](benchmark::State& s) { nlohmannWrite(s, t, 0); });
    add("indent2/" + d + "/vorn", [&t](benchmark::State& s) { vornWrite(s, t, 2); });
    add("indent2/" + d + "/rapidjson", [&t](benchmark::State& s) { rapidjsonWrite(s, t, 2); });
    add("indent2/" + d + "/nlohmann", [&t](benchmark::State& s) { nlohmannWrite(s, t, 2); });
  }
}

}  // namespace

int main(int argc, char** argv) { return vorn::runBenchmarks(argc, argv, registerAll); }
