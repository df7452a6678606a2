// Times whole processes from outside, as a user sees them: from just before the program is
// started to just after it has been reaped, with the peak resident memory the system accounted
// to it. With a second command (the yardstick) the two run in turn, A B A B ..., so that a drift
// in the machine's speed touches both alike.
//
//   bench_timer [--runs N] [--warmup N] -- COMMAND [ARG...] [--vs YARDSTICK [ARG...]]
//
// Each command starts with standard input, output and error on /dev/null. Prints one JSON
// object: {"a": [{"ms": wall, "cpuMs": user + system, "rssKiB": peak, "status": exit}, ...],
// "b": [...]}.
#include <errno.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

extern char** environ;

namespace {

struct Sample {
  double ms = 0;
  double cpuMs = 0;  // user and system time of the process itself
  long rssKiB = 0;
  int status = 0;
};

double nowMs() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) / 1e6;
}

// ru_maxrss counts kibibytes on Linux and bytes on macOS.
long peakKiB(const rusage& usage) {
#if defined(__APPLE__)
  return static_cast<long>(usage.ru_maxrss / 1024);
#else
  return static_cast<long>(usage.ru_maxrss);
#endif
}

Sample runOnce(const std::vector<char*>& argv) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (int fd = 0; fd <= 2; ++fd) {
    posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", fd == 0 ? O_RDONLY : O_WRONLY, 0);
  }
  Sample sample;
  pid_t pid = 0;
  double start = nowMs();
  int error = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    std::fprintf(stderr, "bench_timer: cannot start %s: %s\n", argv[0], std::strerror(error));
    std::exit(1);
  }
  int status = 0;
  rusage usage{};
  while (wait4(pid, &status, 0, &usage) < 0) {
    if (errno != EINTR) {
      std::perror("bench_timer: wait4");
      std::exit(1);
    }
  }
  sample.ms = nowMs() - start;
  sample.cpuMs = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e3 +
                 static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e3;
  sample.rssKiB = peakKiB(usage);
  sample.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return sample;
}

void printSamples(const char* name, const std::vector<Sample>& samples, bool last) {
  std::printf("\"%s\":[", name);
  for (size_t i = 0; i < samples.size(); ++i) {
    std::printf("%s{\"ms\":%.4f,\"cpuMs\":%.4f,\"rssKiB\":%ld,\"status\":%d}", i ? "," : "",
                samples[i].ms, samples[i].cpuMs, samples[i].rssKiB, samples[i].status);
  }
  std::printf("]%s", last ? "" : ",");
}

[[noreturn]] void usage() {
  std::fprintf(stderr,
               "usage: bench_timer [--runs N] [--warmup N] -- COMMAND [ARG...] [--vs COMMAND "
               "[ARG...]]\n");
  std::exit(2);
}

int count(const char* text) {
  char* end = nullptr;
  long n = std::strtol(text, &end, 10);
  if (*text == '\0' || *end != '\0' || n < 0 || n > 100000) usage();
  return static_cast<int>(n);
}

}  // namespace

int main(int argc, char** argv) {
  int runs = 10, warmup = 1;
  int i = 1;
  for (; i < argc && std::strcmp(argv[i], "--") != 0; ++i) {
    if (std::strcmp(argv[i], "--runs") == 0 && i + 1 < argc) {
      runs = count(argv[++i]);
    } else if (std::strcmp(argv[i], "--warmup") == 0 && i + 1 < argc) {
      warmup = count(argv[++i]);
    } else {
      usage();
    }
  }
  if (i >= argc) usage();
  std::vector<char*> a, b;
  std::vector<char*>* into = &a;
  for (++i; i < argc; ++i) {
    if (std::strcmp(argv[i], "--vs") == 0 && into == &a) {
      into = &b;
      continue;
    }
    into->push_back(argv[i]);
  }
  if (a.empty() || (into == &b && b.empty())) usage();
  a.push_back(nullptr);
  if (!b.empty()) b.push_back(nullptr);

  std::vector<Sample> sa, sb;
  for (int r = 0; r < warmup + runs; ++r) {
    Sample x = runOnce(a);
    if (r >= warmup) sa.push_back(x);
    if (b.empty()) continue;
    Sample y = runOnce(b);
    if (r >= warmup) sb.push_back(y);
  }
  std::printf("{");
  printSamples("a", sa, false);
  printSamples("b", sb, true);
  std::printf("}\n");
  return 0;
}
