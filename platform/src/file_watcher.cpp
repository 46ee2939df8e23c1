#include "tern/rtl/file_watcher.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <system_error>

namespace tern::rtl {
namespace {

// What makes a file different for a reader: new content, a file made, removed or renamed
// over, and a writer closing it.
constexpr std::uint32_t kWatched =
    IN_MODIFY | IN_CLOSE_WRITE | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;

constexpr long kFirstRetryNs = 100'000;
constexpr long kLastRetryNs = 10'000'000;

// A name made, removed or renamed.
constexpr std::uint32_t kEntry = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;

int Checked(int fd, char const* what) {
  if (fd < 0) throw std::system_error(errno, std::generic_category(), what);
  return fd;
}

}  // namespace

FileWatcher::Descriptor::~Descriptor() {
  if (fd_ >= 0) ::close(fd_);
}

FileWatcher::FileWatcher(std::string const& folder, std::vector<std::string> names,
                         std::function<bool(bool)> changed)
    : events_(Checked(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC), "inotify_init1")),
      stop_(Checked(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC), "eventfd")),
      names_(std::move(names)),
      changed_(std::move(changed)) {
  Checked(::inotify_add_watch(events_.Get(), folder.c_str(), kWatched), "inotify_add_watch");
  thread_ = std::thread(&FileWatcher::Run, this);
}

FileWatcher::~FileWatcher() {
  std::uint64_t const one = 1;
  // An eventfd write of 1 cannot fail short of a counter near overflow.
  [[maybe_unused]] auto const written = ::write(stop_.Get(), &one, sizeof one);
  if (thread_.joinable()) thread_.join();
}

void FileWatcher::Run() noexcept {
  pollfd waits[2] = {{events_.Get(), POLLIN, 0}, {stop_.Get(), POLLIN, 0}};
  bool again = false;  // the listener asked to be called again
  timespec retry{0, kFirstRetryNs};
  for (;;) {
    int const ready = ::ppoll(waits, 2, again ? &retry : nullptr, nullptr);
    if (ready < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (waits[1].revents != 0) return;
    Batch batch;
    if (ready > 0 && waits[0].revents != 0) batch = Drain();
    if (!batch.changed && !again) continue;
    // Soon at first (what it waits for is usually one fsync), then less and less often.
    retry.tv_nsec = again ? std::min(retry.tv_nsec * 2, kLastRetryNs) : kFirstRetryNs;
    try {
      again = changed_(batch.replaced);
    } catch (...) {
      again = false;  // the watcher outlives a failing listener; the next change calls it
    }
  }
}

FileWatcher::Batch FileWatcher::Drain() noexcept {
  Batch batch;
  alignas(inotify_event) char buffer[4096];
  for (;;) {
    auto const got = ::read(events_.Get(), buffer, sizeof buffer);
    if (got <= 0) return batch;  // EAGAIN: nothing left
    for (char const* at = buffer; at < buffer + got;) {
      auto const* event = reinterpret_cast<inotify_event const*>(at);
      at += sizeof(inotify_event) + event->len;
      // An overflow lost events; a folder removed or moved ends the watch.
      if (event->mask & (IN_Q_OVERFLOW | IN_IGNORED)) {
        batch.changed = batch.replaced = true;
      } else if (event->len > 0) {
        std::string const name(event->name);  // NUL-padded to len
        auto const found = std::find(names_.begin(), names_.end(), name);
        if (found == names_.end()) continue;
        batch.changed = true;
        if (found == names_.begin() && (event->mask & kEntry) != 0) batch.replaced = true;
      }
    }
    // A read that did not fill the buffer took all there was: an event made since wakes
    // the next wait at once, without a read here that finds nothing.
    if (static_cast<std::size_t>(got) < sizeof buffer - sizeof(inotify_event) - NAME_MAX - 1)
      return batch;
  }
}

}  // namespace tern::rtl
