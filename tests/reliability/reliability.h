#pragma once

// What the reliability suites share: a client of a manager, random settings, a stream of
// changes that a writer process and the tests each rebuild from a seed, their budget and
// seeds, a quiet log, and the tree a restart would load from a file. The writer program
// links it too.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "settings_manager/settings_manager.h"
#include "settings_manager/tree_access.h"
#include "support/manager_fixture.h"
#include "tern/logger/tern_logger.h"

namespace reliability {

using settings_manager::Attributes;
using settings_manager::Setting;
using test_support::P;
using test_support::Text;

// The AddressSanitizer and ThreadSanitizer builds run shorter.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SM_RELIABILITY_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define SM_RELIABILITY_SANITIZED 1
#endif
#endif
#ifndef SM_RELIABILITY_SANITIZED
#define SM_RELIABILITY_SANITIZED 0
#endif
constexpr bool kSanitizerBuild = SM_RELIABILITY_SANITIZED;

// `base` times SM_RELIABILITY_SCALE (when set; else 1, or 0.25 in a sanitizer build), at
// least `least`.
std::size_t Scaled(std::size_t base, std::size_t least = 1);
// The seed of a suite: SM_RELIABILITY_SEED when set, else a fresh one; printed, so that a
// failure can be replayed.
std::uint64_t TestSeed(char const* suite);
// One line of figures for the README: "RELIABILITY <suite>: <parts>".
template <typename... Parts>
void Report(char const* suite, Parts const&... parts) {
  ((std::cout << "RELIABILITY " << suite << ": ") << ... << parts) << std::endl;
}
// The bytes of the file at `path`; empty when there is none.
std::string ReadBytes(std::string const& path);

// A manager and its six role interfaces.
struct Client : test_support::Roles {
  // Makes a manager on `path` (empty: in memory only); 0, or the factory's code.
  int Open(std::string const& path) {
    Close();
    int const rc = settings_manager::CreateSettingsManager({path}, manager);
    return rc != 0 || From(*manager) ? rc : -1;
  }
  void Close() { *this = Client(); }
  std::shared_ptr<settings_manager::ISettingsManager> manager;
};

// The tree a new manager on the file at `path` loads: a restart.
Setting Restarted(std::string const& path);

// The top-level keys every generated path starts with.
inline std::vector<std::string> const kTopKeys = {"sys", "net", "app", "user", "Net"};
// The whole tree of a client's manager.
Setting TreeOf(Client& client);
// Gives an empty manager the tree `root` (a root map), one top-level setting at a time.
int Seed(Client& client, Setting const& root);

// Random settings: every alternative, keys from a small set so that paths meet.
struct Values {
  std::uint64_t Below(std::uint64_t n) { return n == 0 ? 0 : random() % n; }
  bool Chance(unsigned percent) { return Below(100) < percent; }
  std::string Key();
  Setting Scalar();  // any scalar alternative, None now and then
  // A subtree of at most `budget` nodes, some of them read-only.
  Setting Tree(std::size_t budget, int depth = 0);
  std::mt19937_64& random;
};

// One change of the stream.
struct Op {
  enum Kind : std::uint8_t { kCreate, kSetValue, kSetSetting, kSetAttribute, kDelete };
  Kind kind = kCreate;
  uvc::Path path;
  Setting setting;  // kCreate, kSetSetting; the value of kSetValue
  Attributes attributes;
};
int Apply(Op const& op, Client& client);

// Creates, value changes, subtree replacements, attribute changes and deletes, mostly of
// nodes that exist. Change `index` depends only on the seed, the index and the tree it is
// made for, so a process that holds the same tree makes the same change.
struct Stream {
  Op Make(std::uint64_t index, Client& current) const;
  std::uint64_t seed;
  std::size_t maxNodes = 400;
};

}  // namespace reliability
