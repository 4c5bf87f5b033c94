// Names for clang's thread-safety analysis, and mutexes that carry them.
//
// docs/architecture.md defines "host thread", "event-loop thread" and "any thread", and the order in which locks
// are taken.
#pragma once

#include <mutex>

#include "base/noncopyable.h"

#if defined(__clang__)
#define KAVO_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define KAVO_THREAD_ATTRIBUTE(x)
#endif

#define KAVO_CAPABILITY(name) KAVO_THREAD_ATTRIBUTE(capability(name))
#define KAVO_SCOPED_CAPABILITY KAVO_THREAD_ATTRIBUTE(scoped_lockable)
#define KAVO_GUARDED_BY(x) KAVO_THREAD_ATTRIBUTE(guarded_by(x))
#define KAVO_REQUIRES(...) KAVO_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define KAVO_EXCLUDES(...) KAVO_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define KAVO_ACQUIRE(...) KAVO_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define KAVO_RELEASE(...) KAVO_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
// For functions that call back into their caller while it holds the locks.
#define KAVO_NO_ANALYSIS KAVO_THREAD_ATTRIBUTE(no_thread_safety_analysis)
#define KAVO_ASSERTS(x) KAVO_THREAD_ATTRIBUTE(assert_capability(x))

namespace kavo::impl {

template <class StdMutex>
class KAVO_CAPABILITY("mutex") AnnotatedMutex {
 public:
  void lock() KAVO_ACQUIRE() { m_Mutex.lock(); }
  void unlock() KAVO_RELEASE() { m_Mutex.unlock(); }

 private:
  StdMutex m_Mutex;
};

using Mutex = AnnotatedMutex<std::mutex>;
using RecursiveMutex = AnnotatedMutex<std::recursive_mutex>;

// Holds a mutex until the end of its scope.
template <class Lockable>
class KAVO_SCOPED_CAPABILITY MutexLock : NonCopyable {
 public:
  explicit MutexLock(Lockable& mutex) KAVO_ACQUIRE(mutex) : m_Mutex(mutex) { m_Mutex.lock(); }
  ~MutexLock() KAVO_RELEASE() { m_Mutex.unlock(); }

 private:
  Lockable& m_Mutex;
};

}  // namespace kavo::impl
