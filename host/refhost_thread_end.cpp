// Detects the end of a thread. How depends on the C++ runtime rather than on the system.
#include "refhost_platform.hpp"

// mingw-w64's threads are POSIX threads, too, and need a key: there the destructor of a
// thread-local object runs after the thread's thread-local memory is freed.
#if __has_include(<pthread.h>)

#include <pthread.h>

namespace refhost::platform {

namespace {

// The key is deleted before the code of `ended` can be unloaded.
class ThreadEndKey {
 public:
  explicit ThreadEndKey(void (*ended)(void *)) : isMade_(pthread_key_create(&key_, ended) == 0) {}
  ~ThreadEndKey() {
    if (isMade_) pthread_key_delete(key_);
  }
  ThreadEndKey(const ThreadEndKey &) = delete;
  ThreadEndKey &operator=(const ThreadEndKey &) = delete;

  void set(void *value) const {
    if (isMade_) pthread_setspecific(key_, value);
  }

 private:
  pthread_key_t key_{};
  const bool isMade_;
};

}  // namespace

void atThreadEnd(void (*ended)(void *), void *value) {
  static const ThreadEndKey key(ended);
  key.set(value);
}

}  // namespace refhost::platform

#else

namespace refhost::platform {

namespace {

struct ThreadEnd {
  void (*ended)(void *) = nullptr;
  void *value = nullptr;
  ~ThreadEnd() {
    if (ended != nullptr) ended(value);
  }
};

thread_local ThreadEnd threadEnd;

}  // namespace

void atThreadEnd(void (*ended)(void *), void *value) {
  threadEnd.ended = ended;
  threadEnd.value = value;
}

}  // namespace refhost::platform

#endif
