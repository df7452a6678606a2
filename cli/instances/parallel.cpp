#include "instances/parallel.h"

#include <system_error>

namespace vorn {

namespace {

// Thread attributes that are destroyed on every path out of a scope.
struct ThreadAttributes {
  pthread_attr_t attr;
  int error;
  ThreadAttributes() { error = ::pthread_attr_init(&attr); }
  ~ThreadAttributes() {
    if (error == 0) ::pthread_attr_destroy(&attr);
  }
};

}  // namespace

WorkerThread::WorkerThread(std::function<void()> job) : job_(std::move(job)) {
  ThreadAttributes attributes;
  int error = attributes.error;
  if (error == 0) error = ::pthread_attr_setstacksize(&attributes.attr, workerStackBytes);
  if (error == 0) error = ::pthread_create(&thread_, &attributes.attr, &WorkerThread::run, this);
  if (error != 0) throw std::system_error(error, std::generic_category(), "pthread_create");
}

WorkerThread::~WorkerThread() { ::pthread_join(thread_, nullptr); }

void* WorkerThread::run(void* self) {
  static_cast<WorkerThread*>(self)->job_();
  return nullptr;
}

}  // namespace vorn
