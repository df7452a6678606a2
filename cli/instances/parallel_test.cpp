#include "instances/parallel.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <string>
#include <vector>

#include "json/json.h"

namespace vorn {
namespace {

// The stack of the thread that calls it, as the system reports it.
size_t currentStackBytes() {
#if defined(__APPLE__)
  return ::pthread_get_stacksize_np(::pthread_self());
#else
  pthread_attr_t attr;
  if (::pthread_getattr_np(::pthread_self(), &attr) != 0) return 0;
  size_t bytes = 0;
  ::pthread_attr_getstacksize(&attr, &bytes);
  ::pthread_attr_destroy(&attr);
  return bytes;
#endif
}

// Makes new threads get the 512 KiB stack that macOS gives them, for as long as it lives. On
// macOS that is already the default; glibc lets a test set it.
class SmallDefaultStacks {
 public:
  SmallDefaultStacks() {
#if defined(__GLIBC__)
    ::pthread_getattr_default_np(&saved_);
    pthread_attr_t small;
    ::pthread_attr_init(&small);
    ::pthread_attr_setstacksize(&small, 512 * 1024);
    ::pthread_setattr_default_np(&small);
    ::pthread_attr_destroy(&small);
#endif
  }
  ~SmallDefaultStacks() {
#if defined(__GLIBC__)
    ::pthread_setattr_default_np(&saved_);
    ::pthread_attr_destroy(&saved_);
#endif
  }

 private:
#if defined(__GLIBC__)
  pthread_attr_t saved_;
#endif
};

std::string nested(int depth) {
  return std::string(static_cast<size_t>(depth), '[') + "{\"k\":1}" +
         std::string(static_cast<size_t>(depth), ']');
}

TEST(WorkerThread, GetsTheStackOfAMainThreadWhateverTheDefault) {
  SmallDefaultStacks small;
  size_t seen = 0;
  {
    WorkerThread worker([&] { seen = currentStackBytes(); });
  }
  EXPECT_GE(seen, workerStackBytes);
}

TEST(WorkerThread, AJobRunsOnceAndIsJoinedWhenTheThreadIsDestroyed) {
  int runs = 0;
  {
    WorkerThread worker([&] { ++runs; });
  }
  EXPECT_EQ(runs, 1);
}

TEST(ParallelMap, WorkersParseAndPrintTheDeepestReplyTheParserAcceptsOnSmallDefaultStacks) {
  SmallDefaultStacks small;
  // The deepest nesting the parser accepts: the array levels plus the object inside them.
  std::string deepest = nested(510);
  ASSERT_NO_THROW(JSON::parse(deepest));
  EXPECT_THROW(JSON::parse(nested(511)), JSONParseError);

  std::vector<std::string> replies(4, deepest);
  std::vector<size_t> sizes = parallelMap(replies, [](const std::string& reply) {
    return JSON::parse(reply).serialized(2).size();
  });
  ASSERT_EQ(sizes.size(), replies.size());
  size_t expected = JSON::parse(deepest).serialized(2).size();
  for (size_t size : sizes)
    EXPECT_EQ(size, expected);
}

}  // namespace
}  // namespace vorn
