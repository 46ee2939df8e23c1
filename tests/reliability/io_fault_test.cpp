// A failing disk must never leave the tree and the file apart. For every operation, and
// for every read, write, sync, lock, truncate, unlink and open it makes, the fault VFS
// fails that one call (or it and every later one; or reports a full disk or a busy lock):
// the operation must succeed or return a failure code, its tree must be the one before or
// after it, a manager opened on the file beside it must load that same tree, and the
// manager must go on working once the disk does.

#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "reliability_util.h"
#include "support/fault_vfs.h"
#include "support/settings.h"
#include "support/temp_dir.h"

namespace reliability {
namespace {

using test_support::FaultVfs;
using test_support::ListOf;
using test_support::MapOf;
using test_support::Str;

// A writable map of `count` strings, large enough to span pages.
Setting Big(int count, char fill) {
  Setting map = MapOf({});
  for (int i = 0; i < count; ++i)
    std::get<test_support::Map>(map).emplace("k" + std::to_string(i), Str(std::string(40, fill)));
  return map;
}

// Puts the start file in place (nothing for a new file), without log or journal.
void Restore(std::string const& path, std::string const& bytes) {
  for (char const* suffix : {"", "-wal", "-shm", "-journal"})
    std::filesystem::remove(path + suffix);
  if (!bytes.empty()) std::ofstream(path, std::ios::binary) << bytes;
}

class IoFaults : public ::testing::TestWithParam<bool> {};  // rollback journal, or WAL

TEST_P(IoFaults, EveryOperationFailsCleanlyAtEveryReadWriteSyncAndLock) {
  QuietLog quiet;
  bool const rollback = GetParam();
  FaultVfs vfs;
  test_support::TempDir dir;
  auto const db = dir.File("settings.db");
  Setting const start = MapOf({
      {"sys", MapOf({{"a", Setting(std::uint16_t{8080})},
                     {"b", Str("x")},
                     {"c", MapOf({{"d", ListOf({Setting(1.0), Setting(2.0)})},
                                  {"e", Setting(std::vector<std::uint8_t>{1, 2})}})},
                     {"ro", test_support::Int(-1, true)}})},
      {"net", MapOf({{"dns", ListOf({Str("192.0.2.1"), Str("192.0.2.2")})},
                     {"port", Setting(std::uint16_t{22})}})},
      {"app", Big(200, 'a')},
  });
  // The start file, written through a manager and closed. A file that exists keeps its
  // journal mode: the rollback variant makes one in DELETE mode.
  if (rollback) MakeRollbackFile(db);
  {
    Client writer;
    ASSERT_EQ(writer.Open(db), 0);
    ASSERT_EQ(Seed(writer, start), 0);
  }
  std::string const startFile = ReadBytes(db);
  Setting const big = Big(120, 'u'),
                subtree = MapOf({{"k", Setting(true)}, {"l", ListOf({Setting()})}}, true);
  struct Scenario {
    char const* name;
    std::function<int(Client&)> op;  // empty: the operation is the start-up itself
    bool newFile = false;
  };
  std::vector<Scenario> const scenarios = {
      {"start-up on the file", {}},
      {"start-up on a new file", {}, true},
      {"create top-level", [&](Client& c) { return c.creator->CreateSetting(P("user"), big); }},
      {"create nested", [&](Client& c) { return c.creator->CreateSetting(P("sys/c/n"), subtree); }},
      {"create with missing levels",
       [](Client& c) { return c.creator->CreateSetting(P("net/x/y/z"), std::int64_t{7}); }},
      {"create list element by index",
       [](Client& c) { return c.creator->CreateSetting(P("net/dns/3"), Str("192.0.2.3")); }},
      {"set value",
       [](Client& c) { return c.valueSetter->SetValue(P("sys/a"), std::uint16_t{9}); }},
      {"set value of a big subtree",
       [&](Client& c) { return c.valueSetter->SetValue(P("app"), big.value()); }},
      {"replace subtree", [&](Client& c) { return c.setter->SetSetting(P("sys/c"), subtree); }},
      {"set attribute", [](Client& c) { return c.setter->SetAttribute(P("sys/b"), {true}); }},
      {"delete", [](Client& c) { return c.deleter->DeleteSetting(P("sys/c")); }},
      {"delete a big subtree", [](Client& c) { return c.deleter->DeleteSetting(P("app")); }},
  };
  struct Kind {
    FaultVfs::Call call;
    int code;
    bool persistentToo;
  };
  using C = FaultVfs::Call;
  Kind const kinds[] = {
      {C::kRead, 0, true}, {C::kWrite, 0, true},    {C::kWrite, SQLITE_FULL, true},
      {C::kSync, 0, true}, {C::kTruncate, 0, true}, {C::kDelete, 0, true},
      {C::kOpen, 0, true}, {C::kLock, 0, true},     {C::kLock, SQLITE_BUSY, false}};
  // Sanitizer builds try every other point, and the rollback variant every other one
  // again: its commits make three times the calls.
  std::uint64_t const stride = (SanitizerBuild() ? 2 : 1) * (rollback ? 2 : 1);
  std::size_t points = 0, failed = 0;
  for (auto const& scenario : scenarios) {
    if (rollback && scenario.newFile) continue;  // a new file is always made in WAL mode
    bool const startUp = !scenario.op;
    std::string const file = scenario.newFile ? "" : startFile;
    Setting const before = scenario.newFile ? MapOf({}) : start;
    Setting after = before;  // the tree after it, from a manager in memory
    if (!startUp) {
      Client oracle;
      ASSERT_EQ(oracle.Open(""), 0);
      ASSERT_EQ(Seed(oracle, before), 0);
      ASSERT_EQ(scenario.op(oracle), 0) << scenario.name;
      after = TreeOf(*oracle.getter);
    }
    // A failed create of a list element leaves None placeholders in memory.
    Setting placeholder = before;
    if (scenario.name == std::string("create list element by index"))
      std::get<test_support::List>(
          std::get<test_support::Map>(std::get<test_support::Map>(placeholder)["net"])["dns"])
          .resize(4);
    // Each run opens a manager (unless the operation is the start-up), arms `fault`, and
    // runs the operation: its answer.
    auto const run = [&](Client& client, FaultVfs::Fault const* fault) {
      Restore(db, file);
      if (!startUp && client.Open(db) != 0) return -1;
      vfs.ResetCalls();
      if (fault != nullptr) vfs.Arm(*fault);
      int const rc = startUp ? client.Open(db) : scenario.op(client);
      vfs.Disarm();
      return rc;
    };
    FaultVfs::Counts counts{};  // a run without faults counts the calls of each kind
    {
      Client client;
      ASSERT_EQ(run(client, nullptr), 0) << scenario.name;
      counts = vfs.Calls();
    }
    for (auto const& kind : kinds) {
      auto const calls = counts[static_cast<std::size_t>(kind.call)];
      for (int persistent = 0; persistent <= kind.persistentToo; ++persistent) {
        for (std::uint64_t nth = 1; nth <= calls + 1; nth += stride, ++points) {
          std::string const where = std::string(scenario.name) + ": " +
                                    FaultVfs::CallName(kind.call) + " " + std::to_string(nth) +
                                    " of " + std::to_string(calls) + " code " +
                                    std::to_string(kind.code) + (persistent ? " and later" : "");
          Client client;
          FaultVfs::Fault const fault{kind.call, nth, persistent != 0, kind.code};
          int const rc = run(client, &fault);
          ASSERT_TRUE(rc == 0 || rc < 0) << where << ": answered " << rc;
          failed += rc != 0;
          Setting found;
          if (startUp && rc != 0) {  // refused: the file must be as it was, and open now
            ASSERT_TRUE(Restart(db, found)) << where;
            ASSERT_EQ(found, before) << where;
            continue;
          }
          // A create that failed before it grew the tree leaves no placeholder either.
          Setting const memory = TreeOf(*client.getter);
          ASSERT_TRUE(rc == 0 ? memory == after : memory == placeholder || memory == before)
              << where << ": answered " << rc;
          {
            Client beside;
            ASSERT_EQ(beside.Open(db), 0) << where;
            ASSERT_EQ(TreeOf(*beside.getter), rc == 0 ? after : before) << where;
          }
          // The disk works again: so does the manager, and the file follows it (the
          // canary's create rewrites all of net/, a placeholder too).
          ASSERT_EQ(client.creator->CreateSetting(P("net/canary"), std::int8_t{1}), 0) << where;
          Setting const last = TreeOf(*client.getter);
          client.Close();
          ASSERT_TRUE(Restart(db, found)) << where;
          ASSERT_EQ(found, last) << where;
        }
      }
    }
  }
  Report("io-faults", std::to_string(points) + " fault points (" +
                          (rollback ? "rollback journal" : "WAL") + "): " + std::to_string(failed) +
                          " answered a failure code, the rest succeeded, every tree whole");
}

INSTANTIATE_TEST_SUITE_P(Journals, IoFaults, ::testing::Values(false, true),
                         [](auto const& p) { return p.param ? "RollbackJournal" : "Wal"; });

}  // namespace
}  // namespace reliability
