#pragma once

#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace tern::rtl {

// Tells, on a thread of its own, that some files of one folder changed: `changed` is
// called after each batch of kernel events that wrote, made, removed or renamed one of
// the named files, and after the kernel dropped events (anything may have changed then).
// Its argument is true when the first name itself was made, removed or renamed (or
// events were dropped). When it returns true it is called again (with false), events or
// not, after 100 us, then after twice as long each time up to 10 ms, until it returns
// false. Calls never overlap. Linux inotify; the folder
// itself is watched, so a file made or replaced after the start is seen too.
class FileWatcher {
 public:
  // Starts watching `names` in `folder`. Throws std::system_error when the kernel refuses
  // (no inotify instance left, no such folder) or the thread cannot start.
  FileWatcher(std::string const& folder, std::vector<std::string> names,
              std::function<bool(bool replaced)> changed);
  // Stops: a call of `changed` in progress ends first, and none follows.
  ~FileWatcher();
  FileWatcher(FileWatcher const&) = delete;
  FileWatcher& operator=(FileWatcher const&) = delete;

 private:
  // An owned file descriptor.
  class Descriptor {
   public:
    explicit Descriptor(int fd = -1) noexcept : fd_(fd) {}
    ~Descriptor();
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;
    int Get() const noexcept { return fd_; }

   private:
    int fd_;
  };

  void Run() noexcept;
  // What the queued events tell, all of them read.
  struct Batch {
    bool changed = false;   // one of the names
    bool replaced = false;  // the first name's entry
  };
  Batch Drain() noexcept;

  Descriptor events_;  // the inotify instance
  Descriptor stop_;    // an eventfd, written to stop the thread
  std::vector<std::string> names_;
  std::function<bool(bool)> changed_;
  std::thread thread_;  // last: started when everything it reads is ready
};

}  // namespace tern::rtl
