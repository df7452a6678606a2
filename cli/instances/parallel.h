// The one place where the CLI runs threads: one blocking job per item, results in item order.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <type_traits>
#include <vector>

#include <pthread.h>

namespace vorn {

// Jobs mostly wait on sockets, so they get a thread each rather than one per core; the cap
// keeps a machine with very many instances from starting hundreds of threads.
inline constexpr size_t maxParallelJobs = 64;

// Each worker parses and prints a whole reply, and both recurse once per level of nesting, so a
// worker needs the stack of a main thread whatever the system gives new threads: 8 MiB on Linux,
// but 512 KiB on macOS, where a reply nested a few hundred deep (the parser accepts 511) would
// overflow it in a debug or sanitized build.
inline constexpr size_t workerStackBytes = size_t{8} << 20;

// A thread with a stack of workerStackBytes that runs one job and is joined when destroyed.
// Throws std::system_error when the system refuses to start it.
class WorkerThread {
 public:
  explicit WorkerThread(std::function<void()> job);
  WorkerThread(const WorkerThread&) = delete;
  WorkerThread& operator=(const WorkerThread&) = delete;
  ~WorkerThread();

 private:
  static void* run(void* self);
  std::function<void()> job_;
  pthread_t thread_{};
};

// Calls transform(item) once per item, several at a time, and returns the results in the
// items' order whatever order the jobs finish in. An empty list starts nothing. The first
// exception thrown by a job (in item order) is rethrown once every job has finished.
template <typename T, typename Transform>
auto parallelMap(const std::vector<T>& items, Transform transform)
    -> std::vector<std::decay_t<std::invoke_result_t<Transform&, const T&>>> {
  using Result = std::decay_t<std::invoke_result_t<Transform&, const T&>>;
  std::vector<Result> results;
  if (items.empty()) return results;

  // The shared box: one slot per item, each written once under the lock.
  struct Box {
    std::mutex lock;
    std::vector<std::optional<Result>> slots;
    std::vector<std::exception_ptr> failures;
  } box;
  box.slots.resize(items.size());
  box.failures.resize(items.size());
  std::atomic<size_t> next{0};

  auto work = [&]() {
    while (true) {
      size_t i = next.fetch_add(1, std::memory_order_relaxed);
      if (i >= items.size()) return;
      try {
        Result value = transform(items[i]);
        std::lock_guard<std::mutex> hold(box.lock);
        box.slots[i].emplace(std::move(value));
      } catch (...) {
        std::lock_guard<std::mutex> hold(box.lock);
        box.failures[i] = std::current_exception();
      }
    }
  };

  // The calling thread is one of the workers, so the items are worked through even when the
  // system refuses to start another thread.
  size_t workers = std::min(items.size(), maxParallelJobs);
  std::vector<std::unique_ptr<WorkerThread>> threads;
  threads.reserve(workers - 1);
  for (size_t t = 1; t < workers; ++t) {
    try {
      threads.push_back(std::make_unique<WorkerThread>(work));
    } catch (...) {
      break;  // fewer helpers; the calling thread still finishes the items
    }
  }
  work();
  threads.clear();  // joins them

  for (const auto& failure : box.failures) {
    if (failure) std::rethrow_exception(failure);
  }
  results.reserve(items.size());
  for (auto& slot : box.slots)
    results.push_back(std::move(*slot));
  return results;
}

}  // namespace vorn
