#pragma once

// std::mutex and std::shared_mutex as locks the thread-safety analysis knows (the
// standard library's are not annotated), and the scoped holders the library uses.

#include <condition_variable>
#include <mutex>
#include <shared_mutex>

#include "thread_annotations.h"

namespace settings_manager {

class CAPABILITY("mutex") Mutex {
 public:
  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }

 private:
  friend class MutexLock;
  std::mutex mutex_;
};

class CAPABILITY("mutex") SharedMutex {
 public:
  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }
  void lock_shared() ACQUIRE_SHARED() { mutex_.lock_shared(); }
  void unlock_shared() RELEASE_SHARED() { mutex_.unlock_shared(); }

 private:
  std::shared_mutex mutex_;
};

// Holds a Mutex for its scope, and waits on a condition variable with it.
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : lock_(mutex.mutex_) {}
  ~MutexLock() RELEASE() {}
  MutexLock(MutexLock const&) = delete;
  MutexLock& operator=(MutexLock const&) = delete;

  // Lets the mutex go while it waits for a notification (or a spurious wake-up); holds
  // it again on return. Callers loop on their condition.
  void Wait(std::condition_variable& condition) { condition.wait(lock_); }

 private:
  std::unique_lock<std::mutex> lock_;
};

// Holds a SharedMutex exclusively for its scope.
class SCOPED_CAPABILITY WriterLock {
 public:
  explicit WriterLock(SharedMutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~WriterLock() RELEASE() { mutex_.unlock(); }
  WriterLock(WriterLock const&) = delete;
  WriterLock& operator=(WriterLock const&) = delete;

 private:
  SharedMutex& mutex_;
};

// Holds a SharedMutex shared for its scope.
class SCOPED_CAPABILITY ReaderLock {
 public:
  explicit ReaderLock(SharedMutex& mutex) ACQUIRE_SHARED(mutex) : mutex_(mutex) {
    mutex_.lock_shared();
  }
  ~ReaderLock() RELEASE() { mutex_.unlock_shared(); }
  ReaderLock(ReaderLock const&) = delete;
  ReaderLock& operator=(ReaderLock const&) = delete;

 private:
  SharedMutex& mutex_;
};

}  // namespace settings_manager
