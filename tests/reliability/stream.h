#pragma once

// The work load of the reliability suites: a client of a manager, random settings, and a
// stream of changes that a writer process and the tests each rebuild from a seed.
// The writer programs link it too.

#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "settings_manager/settings_manager.h"
#include "support/manager_fixture.h"

namespace reliability {

using settings_manager::Attributes;
using settings_manager::Setting;

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

// A path from its text; empty when the text is not a valid path.
uvc::Path P(std::string const& text);
std::string Text(uvc::Path const& path);

// The top-level keys every generated path starts with.
std::vector<std::string> const& TopKeys();
// The root map as a getter sees it: every top-level key of `keys` that exists.
Setting TreeOf(settings_manager::ISettingsGetter& getter,
               std::vector<std::string> const& keys = TopKeys());
// Gives an empty manager the tree `root` (a root map), one top-level setting at a time.
int Seed(Client& client, Setting const& root);

// Random settings: every alternative, keys from a small set so that paths meet.
class Values {
 public:
  explicit Values(std::mt19937_64& random) : random_(random) {}
  std::uint64_t Below(std::uint64_t n) { return n == 0 ? 0 : random_() % n; }
  bool Chance(unsigned percent) { return Below(100) < percent; }
  std::string Key();
  Setting Scalar();  // any scalar alternative, None now and then
  // A subtree of at most `budget` nodes, some of them read-only.
  Setting Tree(std::size_t budget, int depth = 0);

 private:
  std::mt19937_64& random_;
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
class Stream {
 public:
  explicit Stream(std::uint64_t seed, std::size_t maxNodes = 400)
      : seed_(seed), maxNodes_(maxNodes) {}
  Op Make(std::uint64_t index, settings_manager::ISettingsGetter& current) const;

 private:
  std::uint64_t seed_;
  std::size_t maxNodes_;
};

}  // namespace reliability
