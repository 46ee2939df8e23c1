#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace tern::rtl {

// A counting semaphore: Post adds one and wakes one waiter; Wait blocks until the count
// is non-zero and takes one.
class Semaphore {
 public:
  explicit Semaphore(std::uint64_t initial = 0) : count_(initial) {}
  Semaphore(Semaphore const&) = delete;
  Semaphore& operator=(Semaphore const&) = delete;

  void Post() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++count_;
    ready_.notify_one();
  }

  void Wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    ready_.wait(lock, [this] { return count_ != 0; });
    --count_;
  }

 private:
  std::uint64_t count_;  // guarded by mutex_
  std::mutex mutex_;
  std::condition_variable ready_;
};

}  // namespace tern::rtl
