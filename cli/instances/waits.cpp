// The words the status line shows while instances are waited for.
#include <cmath>
#include <mutex>

#include "instances/instances.h"
#include "transport/deadline.h"

namespace vorn {

namespace {

// A fan-out names this many of the instances it still waits for, then counts the rest.
constexpr size_t namedInWaiting = 3;

}  // namespace

WaitSpec answerWait(std::string what) {
  WaitSpec wait;
  wait.what = std::move(what);
  if (std::optional<double> seconds = Transport::timeout()) {
    wait.limit = std::chrono::milliseconds(static_cast<long long>(std::ceil(*seconds * 1000)));
  } else {
    wait.timeoutHint = true;
  }
  return wait;
}

std::string waitingForAnswer(const InstanceInfo& instance) {
  return "waiting for instance " + instance.id + " (pid " + std::to_string(instance.pid) +
         ") to answer";
}

std::string fanoutProgress(size_t answered, size_t total, const std::vector<std::string>& waiting) {
  std::string text = std::to_string(answered) + " of " + std::to_string(total) + " answered";
  if (waiting.empty()) return text;
  text += "; waiting for ";
  for (size_t i = 0; i < waiting.size() && i < namedInWaiting; ++i) {
    if (i) text += ", ";
    text += waiting[i];
  }
  if (waiting.size() > namedInWaiting) {
    text += " and " + std::to_string(waiting.size() - namedInWaiting) + " more";
  }
  return text;
}

FanoutWait::FanoutWait(StatusLine* status, const std::vector<InstanceInfo>& targets)
    : targets_(targets),
      answered_(targets.size(), false),
      active_(status && !targets.empty()),
      waiting_(active_ ? status : nullptr, active_ ? answerWait(text()) : WaitSpec{}) {}

void FanoutWait::answered(size_t index) {
  if (!active_) return;  // no status line: nothing to count for
  std::lock_guard<std::mutex> hold(lock_);
  if (index >= answered_.size() || answered_[index]) return;
  answered_[index] = true;
  ++count_;
  waiting_.describe(text());
}

std::string FanoutWait::text() const {
  if (targets_.size() == 1) return waitingForAnswer(targets_[0]);
  std::vector<std::string> waiting;
  for (size_t i = 0; i < targets_.size(); ++i) {
    if (!answered_[i]) waiting.push_back(targets_[i].id);
  }
  return fanoutProgress(count_, targets_.size(), waiting);
}

std::optional<InstanceInfo> probeInstance(const std::string& sock, StatusLine* status,
                                          const std::string& who) {
  Waiting waiting(status, answerWait("waiting for " + who + " to answer"));
  return probeInstance(sock);
}

}  // namespace vorn
