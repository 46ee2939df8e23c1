#pragma once

// The work load of the coherence suites, shared with the writer program: a manager with its
// roles, changes by letter, random changes of overlapping settings with what each answered
// and when, and the check that a final state is one that those answers allow.

#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "support/manager_fixture.h"

namespace coherence {

using settings_manager::Setting;

struct Client : test_support::Roles {
  int Open(std::string const& db) {
    int const rc = settings_manager::CreateSettingsManager({db}, manager);
    return rc != 0 ? rc : From(*manager) ? 0 : -1;
  }
  std::shared_ptr<settings_manager::ISettingsManager> manager;
};

// c create, v SetValue, a SetAttribute (value "0"/"1"), s SetSetting (read-only), d delete;
// values are strings.
int Change(Client& client, char kind, std::string const& key, std::string const& value = "");

// One change and what it answered; steady-clock nanoseconds, one clock for every process.
struct Ack {
  char kind = 'c';
  std::string key, value;  // key: path text below the root, e.g. "s/c0"
  int rc = 0;
  std::int64_t start = 0, end = 0;
};
std::string Format(Ack const& ack);
std::optional<Ack> Parse(std::string const& line);

// A random change by writer `tag` of keys every writer shares (s/c0..3, s/d0/x, s/d1/x:
// creating those may make their parent) or of its own (s/<tag>k0..2); values are unique.
Ack RandomChange(Client& client, std::mt19937_64& random, std::string const& tag);

// Makes a manager take in what the others committed, as every change does first.
void Sync(Client& client);
// Every node under "s" as sorted "path=value" lines ('!' marks read-only).
std::string Dump(Client& client);

// Empty when `dump` (of the file) and the answers are those of one store taking the
// changes in an order consistent with their times: each answer is one the change can give,
// and each key's value and mark were written by a change that no other successful change
// of them began after; otherwise what is wrong.
std::string Check(std::string const& dump, std::vector<Ack> const& acks);

}  // namespace coherence
