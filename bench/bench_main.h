// The main() of the Google Benchmark binaries: the compiler joins the machine description that
// the benchmark library records, then the benchmarks registered so far (and by `registerMore`)
// run.
#pragma once

#include <benchmark/benchmark.h>

#if defined(__clang__)
#define VORN_COMPILER "clang " __clang_version__
#elif defined(__GNUC__)
#define VORN_COMPILER "g++ " __VERSION__
#else
#define VORN_COMPILER "unknown"
#endif

namespace vorn {

inline int runBenchmarks(int argc, char** argv, void (*registerMore)() = nullptr) {
  benchmark::AddCustomContext("compiler", VORN_COMPILER);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  if (registerMore) registerMore();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

}  // namespace vorn
