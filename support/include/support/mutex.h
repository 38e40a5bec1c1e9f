// Locks that clang checks: -Wthread-safety warns where a member that is GUARDED_BY a
// mutex is used without it. The standard library's mutex carries no such attributes.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define UDISK_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define UDISK_THREAD_ATTRIBUTE(x)
#endif

#define CAPABILITY(x) UDISK_THREAD_ATTRIBUTE(capability(x))
#define SCOPED_CAPABILITY UDISK_THREAD_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(x) UDISK_THREAD_ATTRIBUTE(guarded_by(x))
#define PT_GUARDED_BY(x) UDISK_THREAD_ATTRIBUTE(pt_guarded_by(x))
#define REQUIRES(...) UDISK_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) UDISK_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) UDISK_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) UDISK_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) UDISK_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define ASSERT_CAPABILITY(x) UDISK_THREAD_ATTRIBUTE(assert_capability(x))
#define NO_THREAD_SAFETY_ANALYSIS UDISK_THREAD_ATTRIBUTE(no_thread_safety_analysis)

namespace zor {

class CAPABILITY("mutex") Mutex {
 public:
  void lock() ACQUIRE() { mMutex.lock(); }
  void unlock() RELEASE() { mMutex.unlock(); }
  bool tryLock() TRY_ACQUIRE(true) { return mMutex.try_lock(); }

  /// For code that the analysis cannot follow, such as a callback that is only run with
  /// the mutex held: it is taken to be held from here on.
  void assertHeld() const ASSERT_CAPABILITY(this) {}

 private:
  friend class Condition;
  friend class MutexLock;
  std::mutex mMutex;
};

/// Holds a mutex to the end of the scope; may be released and taken again in between. A
/// function that is called with the mutex held REQUIRES it, and takes no lock as argument.
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mLock(mutex.mMutex) {}
  ~MutexLock() RELEASE() {}

  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  void unlock() RELEASE() { mLock.unlock(); }
  void lock() ACQUIRE() { mLock.lock(); }

 private:
  std::unique_lock<std::mutex> mLock;
};

/// Runs `task` without the mutex. For a mutex that the analysis knows under several names.
template <class Task>
auto unlocked(Mutex& mutex, Task task) REQUIRES(mutex) NO_THREAD_SAFETY_ANALYSIS {
  mutex.unlock();
  auto result = task();
  mutex.lock();
  return result;
}

/// What threads wait for: one reason each. The mutex is released meanwhile. There are no
/// waits with a predicate here: the analysis does not see into one.
class Condition {
 public:
  void notifyOne() noexcept { mCondition.notify_one(); }
  void notifyAll() noexcept { mCondition.notify_all(); }

  void wait(Mutex& mutex) REQUIRES(mutex) {
    Held held(mutex);
    mCondition.wait(held.lock);
  }

  /// False when the time came first.
  template <class TimePoint>
  bool waitUntil(Mutex& mutex, const TimePoint& time) REQUIRES(mutex) {
    Held held(mutex);
    return mCondition.wait_until(held.lock, time) == std::cv_status::no_timeout;
  }
  bool waitFor(Mutex& mutex, std::chrono::nanoseconds time) REQUIRES(mutex) {
    return waitUntil(mutex, std::chrono::steady_clock::now() + time);
  }

 private:
  /// The caller's hold on the mutex, handed over for the wait.
  struct Held {
    explicit Held(Mutex& mutex) : lock(mutex.mMutex, std::adopt_lock) {}
    ~Held() { lock.release(); }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;
    std::unique_lock<std::mutex> lock;
  };

  std::condition_variable mCondition;
};

}  // namespace zor
