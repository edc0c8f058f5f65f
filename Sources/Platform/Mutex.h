#pragma once

#include <mutex>

// What clang's thread safety analysis is told; other compilers see nothing.
#if defined(__clang__)
#define ZK_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ZK_THREAD_ANNOTATION(x)
#endif
#define GUARDED_BY(x) ZK_THREAD_ANNOTATION(guarded_by(x))
#define REQUIRES(x) ZK_THREAD_ANNOTATION(requires_capability(x))

namespace zk {

/// std::mutex with the annotations that let clang check who holds it. std::condition_variable_any
/// waits with it directly.
class ZK_THREAD_ANNOTATION(capability("mutex")) Mutex {
 public:
  void lock() ZK_THREAD_ANNOTATION(acquire_capability()) { mutex_.lock(); }
  void unlock() ZK_THREAD_ANNOTATION(release_capability()) { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

/// Holds a Mutex for as long as it lives.
class ZK_THREAD_ANNOTATION(scoped_lockable) MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ZK_THREAD_ANNOTATION(acquire_capability(mutex)) : mutex_(mutex) {
    mutex_.lock();
  }
  ~MutexLock() ZK_THREAD_ANNOTATION(release_capability()) { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

}  // namespace zk
