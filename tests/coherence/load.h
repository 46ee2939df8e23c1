#pragma once

// The work load of the coherence suites: writers that change overlapping settings of one
// file through their own managers, the record of what each change answered and when, and
// the check that the file's final state is one that those answers allow.
// Free of GoogleTest: the writer program links it too.

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "stream.h"

namespace coherence {

using reliability::Client;
using settings_manager::Setting;

// One change and what it answered. Times are steady-clock nanoseconds, the same clock in
// every process of the machine.
struct Ack {
  char kind = 'c';  // c create, v SetValue, a SetAttribute (value "0"/"1"), d delete
  std::string key;  // path text below the root, e.g. "s/c0"
  std::string value;
  int rc = 0;
  std::int64_t start = 0;
  std::int64_t end = 0;
};
std::string Format(Ack const& ack);
std::optional<Ack> Parse(std::string const& line);

// Random changes of writer `tag`: creates, value and attribute changes and deletes of
// keys every writer shares (s/c0..s/c3, s/d0/x, s/d1/x: creating those may make their
// parent) and of keys of its own under the same map (s/<tag>k0..2). Values are unique.
class Load {
 public:
  Load(std::string tag, std::uint64_t seed) : tag_(std::move(tag)), random_(seed) {}
  Ack Next(Client& client);

 private:
  std::string tag_;
  std::mt19937_64 random_;
  std::uint64_t count_ = 0;
};

// Records the events an observer is told, as path text and kind.
class Recorder : public settings_manager::ISettingsUpdateObserver {
 public:
  using Event = std::pair<std::string, int>;
  void Update(uvc::Path const& path, unsigned char kind) override;
  // The events recorded since the last call, once there are `count` (at most a minute).
  std::vector<Event> Next(std::size_t count);

 private:
  std::mutex lock_;
  std::condition_variable arrived_;
  std::vector<Event> events_;  // guarded by lock_
};

// Makes a manager take in what the others committed, the way every change does first:
// a change that then finds nothing to do.
void Sync(Client& client);

// Every node under "s" as sorted "path=value" lines ('!' marks read-only).
std::string Dump(Setting const& root);
std::string Dump(Client& client);

// Empty when the final tree `root` (of the file) and the answers are those of one store
// taking the changes in some order consistent with their times: each answer is one the
// change can give, and each key's value and mark are those written by a change that no
// other successful change of them began after; otherwise what is wrong.
std::string Check(Setting const& root, std::vector<Ack> const& acks);

}  // namespace coherence
